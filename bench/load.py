"""A load on one path of a node, with wrk, and what it cost the node's workers."""

import json
import os
import subprocess
import tempfile

_SCRIPT = """
wrk.method = {method}
wrk.body = {body}
{headers}
function done(summary, latency, requests)
    io.write(string.format('RESULT {{"requests": %d, "duration_us": %d, "failed": %d, "p50_us": %d, "p99_us": %d}}\\n',
        summary.requests, summary.duration,
        summary.errors.status + summary.errors.connect + summary.errors.read + summary.errors.timeout,
        latency:percentile(50), latency:percentile(99)))
end
"""


def _lua(text):
    """`text` as a Lua string literal."""
    return json.dumps(text)


def workers(korvd):
    """Process ids of the workers below the supervisor `korvd`."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                head, _, tail = file.read().rpartition(")")
        except OSError:
            continue
        if int(tail.split()[1]) == korvd and head.partition("(")[2].startswith("korvd"):
            found.append(int(entry))
    return found


def cpu_ns(pids):
    """Time that the processes have spent on a processor."""
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/schedstat", encoding="utf-8") as file:
            total += int(file.read().split()[0])
    return total


def peak_kb(pids):
    """The largest peak of resident memory among the processes."""
    peaks = []
    for pid in pids:
        with open(f"/proc/{pid}/status", encoding="utf-8") as file:
            peaks += [int(line.split()[1]) for line in file if line.startswith("VmHWM:")]
    return max(peaks)


class Load:
    """Sends the same request from `clients` connections for some seconds."""

    def __init__(self, url, method="GET", body="", headers=None):
        self.url = url
        self.script = _SCRIPT.format(
            method=_lua(method), body=_lua(body),
            headers="\n".join(f"wrk.headers[{_lua(k)}] = {_lua(v)}" for k, v in (headers or {}).items()))

    def run(self, clients, seconds, korvd):
        """Requests per second, p50 and p99 in ms, worker CPU in ms a request, peak memory in MB."""
        with tempfile.NamedTemporaryFile("w", suffix=".lua", encoding="utf-8") as script:  # 0600: holds the session
            script.write(self.script)
            script.flush()
            pids = workers(korvd)
            before = cpu_ns(pids)
            output = subprocess.run(
                ["wrk", "-t1", f"-c{clients}", f"-d{seconds}s", "--timeout", "60s", "-s", script.name, self.url],
                check=True, capture_output=True, text=True).stdout
            spent = cpu_ns(pids) - before
        result = json.loads(output.rpartition("RESULT ")[2])
        if result["failed"] or not result["requests"]:
            raise RuntimeError(f"{self.url}: {result['failed']} of {result['requests']} requests failed")
        return {
            "per_s": result["requests"] / (result["duration_us"] / 1e6),
            "p50_ms": result["p50_us"] / 1e3,
            "p99_ms": result["p99_us"] / 1e3,
            "cpu_ms": spent / 1e6 / result["requests"],
            "peak_mb": peak_kb(pids) / 1024,
        }
