"""The manual pages tell of every command and option that the command knows, and of no other."""

import pathlib
import re
import shutil
import subprocess

import pytest

from conftest import qelix
from test_check import commands

FOLDER = pathlib.Path(__file__).parents[2] / "Docs" / "man"
PAGES = sorted(FOLDER.glob("*.scd"))
HELP = frozenset(["-h", "--help"])  # told once, in qelix(1)
OPTION = r"--?[A-Za-z][\w-]*"


def sections(page):
    """The texts of a page by their headings."""
    parts = re.split(r"^# (.+)\n", page.read_text(), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def entries(text):
    """The options that a text explains, each with all its names."""
    heads = re.findall(rf"^(\*{OPTION}\*.*)\n\t", text, re.MULTILINE)
    return [frozenset(re.findall(rf"\*({OPTION})\*", head)) for head in heads]


def offered(*command):
    """The options that the command's help lists, each with all its names."""
    heads = re.findall(rf"^  ({OPTION}(?:,{OPTION})*)", qelix(*command, "--help").stdout, re.MULTILINE)
    assert heads
    return {frozenset(head.split(",")) for head in heads}


def synopses():
    """Of each command its page and what stands behind it in the synopsis; some have several lines."""
    found = {}
    for page in PAGES:
        for name, rest in re.findall(r"^\*qelix (\w+)\*(.*)$", sections(page)["SYNOPSIS"], re.MULTILINE):
            found.setdefault(name, (page, []))[1].append(rest)
    return {name: (page, " ".join(rests)) for name, (page, rests) in found.items()}


def told(page, synopsis):
    """The options that a synopsis stands for: its own words, and the sections that it names."""
    texts = sections(page)
    explained = [entry for text in texts.values() for entry in entries(text)]
    named = set(re.findall(rf"\*({OPTION})\*", synopsis))
    options = {entry for entry in explained if entry & named}
    assert named <= set().union(*options), "each option of the synopsis is explained"
    for heading in re.findall(r"\[_([A-Z]+)_\]", synopsis):
        options |= set(entries(texts.get(heading, "")))
    return options


def test_every_command_has_its_place():
    assert set(synopses()) == set(commands())
    overview = sections(FOLDER / "qelix.1.scd")["COMMANDS"]
    assert {name for name in re.findall(r"\*(\w+)\*", overview)} >= set(commands())


@pytest.mark.parametrize("command", commands())
def test_a_synopsis_stands_for_what_the_help_lists(command):
    page, synopsis = synopses()[command]
    if page.name == "qelix.1.scd":
        assert offered(command) == {HELP} and not re.search(OPTION, synopsis)
    else:
        assert told(page, synopsis) == offered(command) - {HELP}


def test_the_overview_has_the_options_of_all():
    assert set(entries(sections(FOLDER / "qelix.1.scd")["OPTIONS"])) == offered()


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_nothing_is_explained_twice_or_for_no_command(page):
    explained = [entry for text in sections(page).values() for entry in entries(text)]
    assert len(explained) == len(set(explained))
    if page.name != "qelix.1.scd":
        of_commands = [told(page, synopsis) for of_page, synopsis in synopses().values() if of_page == page]
        assert set(explained) == set().union(*of_commands)


def test_pages_lead_to_pages_that_are_there():
    names = {page.name.removesuffix(".1.scd") for page in PAGES}
    for page in PAGES:
        assert set(re.findall(r"\b(qelix[\w-]*)\(1\)", page.read_text())) <= names, page
    assert set(re.findall(r"qelix-\w+(?=\(1\))", (FOLDER / "qelix.1.scd").read_text())) == names - {"qelix"}


@pytest.mark.skipif(shutil.which("scdoc") is None, reason="scdoc is not installed; apt-get install scdoc")
@pytest.mark.skipif(shutil.which("groff") is None, reason="groff is not installed; apt-get install groff-base")
@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_a_page_is_rendered_without_a_warning(page):
    made = subprocess.run(["scdoc"], input=page.read_bytes(), capture_output=True)
    assert made.returncode == 0 and made.stderr == b""
    shown = subprocess.run(["groff", "-man", "-Tutf8", "-P-cbou", "-ww"], input=made.stdout, capture_output=True)
    assert shown.returncode == 0 and shown.stderr == b""
    text = shown.stdout.decode()
    for heading in sections(page):
        assert re.search(rf"^{heading}$", text, re.MULTILINE), heading
    assert max(map(len, text.splitlines())) <= 80
