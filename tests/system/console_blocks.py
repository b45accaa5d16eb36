"""The commands in a document, and running them as a reader would."""

import os
import re
import subprocess

from node import BUILD

_BLOCK = re.compile(r"^```console\n(.*?)^```$", re.MULTILINE | re.DOTALL)
_END_MARK = "end-of-command"
_CHANGING = [
    (re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"), "TIME"),
    (re.compile(r"http://127\.0\.0\.1:\d+"), "URL"),
    # Whoever looks late sees a job's end only.
    (re.compile(r"^(en|de)crypting \w+ (goes on|is about to begin)\n", re.MULTILINE), ""),
]


def commands_of(path, prompts=("$ ",)):
    """Pairs of a command and what the document says it prints, in the order of the document.

    Prompts are two characters long.
    """
    with open(path, encoding="utf-8") as file:
        blocks = _BLOCK.findall(file.read())
    pairs = []
    for line in "".join(blocks).splitlines():
        if line.startswith(prompts):
            pairs.append((line[2:], []))
        elif pairs:
            pairs[-1][1].append(line)
    return [(command, "\n".join(expected)) for command, expected in pairs]


def steady(text):
    """`text` without what differs from one run to the next."""
    for pattern, word in _CHANGING:
        text = pattern.sub(word, text)
    return text.strip()


def reader_environment(home, **more):
    """What a reader has, whose programs and files are the build's and those in `home`."""
    environment = dict(os.environ, HOME=str(home), TZ="UTC", LC_ALL="C.UTF-8", PS1="",
                       PATH=f"{BUILD}/bin:/usr/sbin:/usr/bin:/sbin:/bin", **more)
    environment.pop("XDG_CONFIG_HOME", None)
    return environment


class Shell:
    """One bash that takes command after command; what a command prints on either stream is its answer."""

    def __init__(self, folder, environment):
        self.process = subprocess.Popen(["bash", "--norc"], cwd=folder, env=environment, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(20)
        self.process.stdout.close()

    def run(self, command):
        # The mark keeps the command's status for the next one to ask for.
        self.process.stdin.write(f'{command}\n{{ s=$?; printf "\\n%s\\n" {_END_MARK}; (exit "$s"); }}\n')
        self.process.stdin.flush()
        lines = []
        for line in self.process.stdout:
            if line.rstrip("\n") == _END_MARK:
                return "".join(lines)[:-1]  # less the line end of the mark's own
            lines.append(line)
        raise AssertionError(f"the shell ended in: {command}\n{''.join(lines)}")
