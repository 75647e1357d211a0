"""docs/operation.md: every line it quotes is one that the daemon prints, and none that a station may see is left out."""

import pathlib
import re

import pytest

from documentExamples import document

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENT = "operation.md"
SECTION = "What each line means"

LITERAL = r'"((?:[^"\\]|\\.)*)"'

# What a station sees without asking for more: the calls that print it, up to the text.
SHOWN = {
    "LogEvent of failures": r"LogEvent\(\s*LOG_ERROR,\s*" + LITERAL,
    "LogEvent of information": r"LogEvent\(\s*LOG_INFO,\s*" + LITERAL,
    "trace level 0": r"AUDIO_TRACE_(?:PRINTF|PUTS)(?:_TO)?\(\s*(?:\w+,\s*)?0,\s*" + LITERAL,
    "trace level 0 of the system's layer": r"OSA_TRACE_(?:PRINTF|PUTS)\(\s*0,\s*" + LITERAL,
    "errors of the system's layer": r"OSA_ERROR_(?:PRINTF|PUTS)(?:_OF\(\s*[^,]*,|\()\s*" + LITERAL,
    "standard error": r"fprintf\(\s*stderr,\s*" + LITERAL,
    "standard error, as it is": r"fputs\(\s*" + LITERAL + r",\s*stderr",
}


def lines_of(literal):
    """The lines that a text of the source prints, with <> for what varies, without file and line in front."""
    text = re.sub(r"^%[sSi] %d:? ", "", literal)
    for escape, byte in (("\\n", "\n"), ("\\t", "\t"), ("\\r", "\r"), ('\\"', '"')):
        text = text.replace(escape, byte)
    text = re.sub(r"%[-0-9.]*(?:l|z)*[a-zA-Z]", "<>", text)
    return [line.strip() for line in text.split("\n") if re.search("[A-Za-z]", line.replace("<>", ""))]


def sources():
    return [path.read_text() for path in sorted((ROOT / "src").rglob("*.cpp"))]


def printed(expression):
    return {line for text in sources() for literal in re.findall(expression, text) for line in lines_of(literal)}


def quoted():
    """The lines in the first cells of the section's tables, with <> for a word in angle brackets."""
    section = document(DOCUMENT).split(f"\n## {SECTION}\n")[1].split("\n## ")[0]
    rows = [line for line in section.splitlines() if line.startswith("| `")]
    assert len(rows) > 50
    return [re.sub(r"<[a-z][^<>]*>", "<>", text) for row in rows for text in re.findall(r"`([^`]+)`", row.split(" | ")[0])]


def test_every_quoted_line_is_one_of_the_source():
    assert set(quoted()) - printed(LITERAL) == set()


@pytest.mark.parametrize("kind", SHOWN)
def test_every_line_that_a_station_may_see_is_quoted(kind):
    shown = printed(SHOWN[kind])
    assert shown, f"nothing in src/ prints as {kind} does: is the expression out of date?"
    assert shown - set(quoted()) == set()


def test_no_line_is_quoted_twice():
    found = quoted()
    assert {line for line in found if found.count(line) > 1} == set()


def test_lines_of_the_source_are_read_as_they_print():
    assert lines_of(r"%s %d: Cannot open %s.  %s") == ["Cannot open <>.  <>"]
    assert lines_of(r"%s %d No audio source with id = %d") == ["No audio source with id = <>"]
    assert lines_of(r"The rate %f Hz is odd.\n ==> Using %f Hz instead.\n") == ["The rate <> Hz is odd.",
                                                                              "==> Using <> Hz instead."]
    assert lines_of(r"%8u.%06u (%1d): ") == []
    assert lines_of(r"read %zu Bytes %ld") == ["read <> Bytes <>"]
