"""Reads unit files of the service manager: lines, drop-ins, resets, in the manager's own order."""
from collections import namedtuple
from pathlib import Path

Line = namedtuple("Line", "section key value where")

YES, NO = {"yes", "true", "on", "1"}, {"no", "false", "off", "0"}


class UnitError(Exception):
    """A line that is no unit file's, or one whose meaning is not known here."""


def read(paths):
    """The lines of a unit and its drop-ins, in order."""
    lines = []
    for path in map(Path, paths):
        section, joined = None, ""
        for number, text in enumerate(path.read_text("utf-8").splitlines(), 1):
            where = f"{path.name}:{number}"
            if text.lstrip().startswith(("#", ";")) or not (text.strip() or joined):
                continue
            if text.endswith("\\"):
                joined += text[:-1] + " "
                continue
            text, joined = (joined + text).strip(), ""
            if text.startswith("[") and text.endswith("]"):
                section = text[1:-1]
                continue
            key, equals, value = text.partition("=")
            if not equals or section is None:
                raise UnitError(f"{where}: not a line of a unit file: {text}")
            lines.append(Line(section, key.strip(), value.strip(), where))
    return lines


def settings(lines, section="Service"):
    """key -> its values in order. An empty value takes back what stood before it."""
    found = {}
    for line in lines:
        if line.section != section:
            continue
        values = found.setdefault(line.key, [])
        if line.value:
            values.append(line.value)
        else:
            values.clear()
    return found


def boolean(value):
    if value.lower() in YES | NO:
        return value.lower() in YES
    raise UnitError(f"neither yes nor no: {value}")
