"""Whether a symbol is declared in the headers under platform/."""

import pathlib
import re


def _without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def _without_template_arguments(symbol):
    """"Converter<Text, void>::ToJson" -> "Converter::ToJson", however deep they nest."""
    kept, depth = [], 0
    for character in symbol:
        depth += character == "<"
        if depth == 0:
            kept.append(character)
        depth -= character == ">"
    return "".join(kept)


def _without_arguments(symbol):
    """"KORV::APIRequest::GetParam(...) const" -> "KORV::APIRequest::GetParam"; results and ABI tags go too."""
    symbol = _without_template_arguments(re.sub(r"\[abi:\w+\]", "", symbol)).partition("(")[0]
    return re.sub(r"^.*[ *&](?=\S+$)", "", symbol)


def _scopes(qualified):
    """["KORV", "APIRequest", "GetParam"]."""
    return qualified.split("::")


class Headers:
    def __init__(self, folder):
        self._texts = [_without_comments(path.read_text()) for path in sorted(pathlib.Path(folder).rglob("*.h"))]

    def declare(self, symbol):
        """True when one header opens all the symbol's scopes and declares its last name in them."""
        *scopes, name = _scopes(_without_arguments(symbol))
        is_function = "(" in symbol
        ending = r"\s*(<[^;>]*>)?\s*\(" if is_function else r"\s*;"
        return any(
            all(re.search(rf"\b(class|struct|namespace)\s+{re.escape(scope)}\b[^;]*{{", text) for scope in scopes)
            and re.search(rf"(^|[\s*&~]){re.escape(name)}{ending}", text)
            for text in self._texts)
