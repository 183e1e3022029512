"""The table of interposed names, read from Members.def."""

import pathlib
import re
from typing import NamedTuple, Optional


class Member(NamedTuple):
    function: str  # without the prefix ZorvInterpose
    name: str
    old: Optional[str]  # such as GLIBC_2.2.5; None: a single entry without a version
    new: Optional[str]


def version_of(suffix):
    return "GLIBC_" + suffix.replace("_", ".") if suffix else None


def suffix_of(version):
    return version.replace("GLIBC_", "").replace(".", "_")


def read_members():
    text = pathlib.Path(__file__).with_name("Members.def").read_text()
    row = re.compile(r"^ZORV_(?:MEMBER|SINGLE)\((\w+), (\w+)(?:, (\w+), (\w+))?\)$", re.M)
    members = [Member(f, n, version_of(o), version_of(w)) for f, n, o, w in row.findall(text)]
    assert len(members) == text.count("\nZORV_"), "a row of Members.def is not understood"
    return members
