"""The commands from packages to the first event, as the README tells them.

first_commands() is what the tests run and what scripts/package_check runs (as a program, this file
prints the commands, one a line): whoever changes them changes the README alone.
"""
import re
from pathlib import Path

README = Path(__file__).resolve().parents[2] / "README.md"
SECTION = "Install it"


def first_commands(document=README, section=SECTION):
    """(the installation, the commands after it): the indented lines of the section."""
    text = document.read_text()
    found = re.search(rf"^#+ {section}\n(.*?)(?=^#+ |\Z)", text, re.M | re.S)
    if not found:
        raise LookupError(f"{document} has no section '{section}'")
    unfenced = re.sub(r"^```.*?^```", "", found[1], flags=re.M | re.S)
    lines = [line.strip() for line in re.findall(r"^ {4}(\S.*)", unfenced, re.M)]
    if not lines or not lines[0].startswith("apt install "):
        raise LookupError(f"'{section}' of {document} does not begin with an installation")
    return lines[0], lines[1:]


if __name__ == "__main__":
    installation, commands = first_commands()
    print(installation, *commands, sep="\n")
