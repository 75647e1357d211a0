"""
Takes the examples out of a document, so that tests can play them to the daemon.

    for block in blocks("control-datagram.md"):
        block.kind, block.text, block.heading          # "hex", "02 03 12 00 00", "Stop: 5 bytes"

What varies from run to run stands in a document as a word in angle brackets (<date>); pattern() makes a regular
expression of such a text, in which all else stands for itself.
"""

import re
from dataclasses import dataclass

from daemonHarness import ROOT


@dataclass(frozen=True)
class Block:
    """One fenced block: the word behind its fence, its text without the last line end, the heading it stands under."""

    kind: str
    text: str
    heading: str


def document(name):
    return (ROOT / "docs" / name).read_text()


def blocks(name, kind=None, heading=None):
    """The document's fenced blocks in order: all, or those of one kind, or of one section."""
    found, fence, lines, section = [], None, [], ""
    for line in document(name).splitlines():
        if line.startswith("```"):
            if fence is not None:
                found.append(Block(fence, "\n".join(lines), section))
            fence, lines = (line[3:].strip(), []) if fence is None else (None, [])
        elif fence is not None:
            lines.append(line)
        elif line.startswith("#"):
            section = line.lstrip("#").strip()
    assert fence is None, f"{name}: a fenced block has no end"
    return [block for block in found if kind in (None, block.kind) and heading in (None, block.heading)]


def the_block(name, kind, heading):
    """The only block of its kind in a section."""
    (block,) = blocks(name, kind, heading)
    return block.text


def pattern(text, words):
    """A regular expression for `text`: `words` maps what varies, such as "<date>", to its shape."""
    parts = re.split("(" + "|".join(map(re.escape, words)) + ")", text)
    return "".join(words.get(part, re.escape(part)) for part in parts)


def table(name, heading):
    """The rows of the only table of a section, each a list of cells, without the two rows of its head."""
    section = re.search(rf"^#+ {re.escape(heading)}\n(.*?)(?=^#|\Z)", document(name), re.MULTILINE | re.DOTALL)[1]
    rows = [line for line in section.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in row.strip("|").split("|")] for row in rows[2:]]
