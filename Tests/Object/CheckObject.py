"""Checks of the built agent, read with readelf and objdump.

Usage: CheckObject.py CHECK AGENT. Each check is a function below; it returns what is wrong, one line each.
"""

import pathlib
import re
import subprocess
import sys
from typing import NamedTuple

from Members import read_members, suffix_of


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


# ---- what readelf says -----------------------------------------------------------------------------------


class Symbol(NamedTuple):
    value: int
    type: str
    bind: str
    section: str
    name: str
    version: str  # "@OLD", "@@NEW" or ""

    @property
    def is_defined(self):
        return self.section != "UND"


def read_symbols(agent):
    """The dynamic symbols, without the version nodes' own."""
    symbols = []
    for line in run("readelf", "--dyn-syms", "-W", agent).splitlines():
        fields = line.split()
        if len(fields) < 8 or not fields[0].rstrip(":").isdigit():
            continue
        name, at, version = fields[7].partition("@")
        symbol = Symbol(int(fields[1], 16), fields[3], fields[4], fields[6], name, at + version)
        # The loader passes over hidden symbols.
        if symbol.section != "ABS" and fields[5] not in ("HIDDEN", "INTERNAL"):
            symbols.append(symbol)
    return symbols


def exported(agent):
    return [s for s in read_symbols(agent) if s.is_defined]


def imported(agent):
    return [s for s in read_symbols(agent) if not s.is_defined and s.name]


def read_dynamic(agent):
    """The dynamic section as (tag, text) pairs."""
    row = re.compile(r"^\s*0x[0-9a-f]+ \((\w+)\)\s+(.*)$", re.M)
    return row.findall(run("readelf", "-d", "-W", agent))


def is_own_name(name):
    return name.startswith("Zorv") or re.match(r"fn[A-Z]", name) is not None


def interposed(agent):
    return {s.name for s in exported(agent) if not is_own_name(s.name)}


# ---- libraries and flags ---------------------------------------------------------------------------------


def check_needed(agent):
    """libc and the loader, nothing else."""
    needed = {re.search(r"\[(.*)\]", text).group(1) for tag, text in read_dynamic(agent) if tag == "NEEDED"}
    wrong = [f"needs {name}" for name in needed - {"libc.so.6", "ld-linux-x86-64.so.2"}]
    return wrong if "libc.so.6" in needed else wrong + ["does not need libc.so.6"]


def check_flags(agent):
    dynamic = read_dynamic(agent)
    flags = " ".join(text for tag, text in dynamic if tag in ("FLAGS", "FLAGS_1"))
    wrong = [f"{flag} is not set" for flag in ("BIND_NOW", "NODELETE", "STATIC_TLS") if flag not in flags.split()]
    wrong += ["has text relocations" for tag, text in dynamic if tag == "TEXTREL" or "TEXTREL" in text]
    wrong += ["is bound inside itself (SYMBOLIC)" for tag, text in dynamic if tag == "SYMBOLIC" or "SYMBOLIC" in text]
    return wrong


def check_segments(agent):
    segments = run("readelf", "-l", "-W", agent)
    stack = re.search(r"GNU_STACK.*", segments)
    wrong = [] if stack and " E " not in stack.group(0) and "RWE" not in stack.group(0) else ["its stack is executable"]
    wrong += ["has no GNU_RELRO"] if "GNU_RELRO" not in segments else []
    wrong += [f"writable code: {line.strip()}" for line in segments.splitlines() if "LOAD" in line and "RWE" in line]
    return wrong


def check_tls(agent):
    """Thread-local data by a fixed offset: no call into the loader, which may allocate, on any path."""
    wrong = [] if re.search(r"^\s*TLS ", run("readelf", "-l", "-W", agent), re.M) else ["has no thread-local data"]
    kinds = set(re.findall(r"R_X86_64_(?:DTPMOD64|DTPOFF64|TLSDESC)", run("readelf", "-r", "-W", agent)))
    wrong += [f"relocation {kind}" for kind in sorted(kinds)]
    return wrong + [f"calls {s.name}" for s in imported(agent) if s.name == "__tls_get_addr"]


def check_libraries(agent):
    """No trace of the C++ library, of exceptions or of run-time type information."""
    wrong = []
    for symbol in imported(agent):
        runtime = symbol.name.startswith("__cxa_") and symbol.name not in ("__cxa_atexit", "__cxa_finalize")
        if runtime or symbol.name.startswith(("_Z", "__gxx_", "_Unwind_", "__dynamic_cast")):
            wrong.append(f"imports {symbol.name}")
        if symbol.version and "@GLIBC_" not in symbol.version:
            wrong.append(f"imports {symbol.name}{symbol.version}")
        if not symbol.version and symbol.bind != "WEAK":
            wrong.append(f"imports {symbol.name} from nowhere")
    return wrong


# ---- unwinding -------------------------------------------------------------------------------------------


def check_unwind(agent):
    """A cancelled thread unwinds through our frames: every function has its table."""
    ranges = re.findall(r"FDE .* pc=([0-9a-f]+)\.\.([0-9a-f]+)", run("readelf", "--debug-dump=frames", "-W", agent))
    ranges = [(int(first, 16), int(last, 16)) for first, last in ranges]
    wrong = [] if ranges else ["has no .eh_frame"]
    if "GNU_EH_FRAME" not in run("readelf", "-l", "-W", agent):
        wrong.append("has no GNU_EH_FRAME segment")
    for symbol in exported(agent):
        if symbol.type == "FUNC" and not any(first <= symbol.value < last for first, last in ranges):
            wrong.append(f"{symbol.name}: no unwind table")
    return wrong


# ---- entries ---------------------------------------------------------------------------------------------


def expected_entries():
    """(name, binding, version) of each entry point of each interposed name."""
    entries = set()
    for member in read_members():
        if member.old is None:
            entries.add((member.name, "WEAK", ""))
            continue
        entries.add((member.name, "GLOBAL", "@" + member.old))
        entries.add((member.name, "GLOBAL", "@@" + member.new))
        entries.add((member.name, "WEAK", "@@" + member.old))
    return entries


def check_entries(agent):
    found = {(s.name, s.bind, s.version) for s in exported(agent) if not is_own_name(s.name)}
    wrong = [f"missing: {bind} {name}{version}" for name, bind, version in expected_entries() - found]
    return wrong + [f"unexpected: {bind} {name}{version}" for name, bind, version in found - expected_entries()]


def check_addresses(agent):
    """Each entry leads to the function of its version, and the three of one name are different functions."""
    addresses = {(s.name, s.version): s.value for s in exported(agent)}
    wrong = []
    for member in read_members():
        plain = "ZorvInterpose" + member.function
        pairs = [(plain, "@@" + member.old if member.old else "")]
        if member.old:
            pairs.append((f"{plain}_{suffix_of(member.old)}", "@" + member.old))
            pairs.append((f"{plain}_{suffix_of(member.new)}", "@@" + member.new))
        values = [addresses.get((function, "")) for function, _ in pairs]
        for (function, version), value in zip(pairs, values):
            if value is None or addresses.get((member.name, version)) != value:
                wrong.append(f"{member.name}{version} is not {function}")
        if len(set(values)) != len(values):
            wrong.append(f"entries of {member.name} share a function")
    return wrong


def check_exports(agent):
    """Exactly the listed names, each a global function without a version."""
    text = pathlib.Path(__file__).with_name("Exports.txt").read_text()
    listed = {line for line in text.splitlines() if line and not line.startswith("#")}
    for member in read_members():
        listed.add("ZorvInterpose" + member.function)
        for version in filter(None, (member.old, member.new)):
            listed.add(f"ZorvInterpose{member.function}_{suffix_of(version)}")
    own = [s for s in exported(agent) if is_own_name(s.name)]
    found = {s.name for s in own}
    wrong = [f"not exported: {name}" for name in sorted(listed - found)]
    wrong += [f"exported without need: {name}" for name in sorted(found - listed)]
    for symbol in own:
        if (symbol.type, symbol.bind, symbol.version) != ("FUNC", "GLOBAL", ""):
            wrong.append(f"{symbol.name}{symbol.version} is {symbol.bind} {symbol.type}")
    return wrong


# ---- who calls whom --------------------------------------------------------------------------------------


def check_relocations(agent):
    """The agent never calls a name that it interposes: it would record itself. What the loader is asked records nothing."""
    names = interposed(agent) - {"dl_iterate_phdr", "dlclose"}
    row = re.compile(r"^[0-9a-f]+\s+[0-9a-f]+\s+R_X86_64_\w+\s+[0-9a-f]+\s+([^\s@+]+)", re.M)
    relocated = set(row.findall(run("readelf", "-r", "-W", agent)))
    if not any(is_own_name(name) for name in relocated):
        return ["no relocation of its own names is seen: they are bound inside the object"]
    wrong = [f"relocation against {name}" for name in sorted(relocated & names)]
    return wrong + [f"imports {s.name}" for s in imported(agent) if s.name in names]


def check_calls(agent):
    """Public functions are reached through the dynamic symbol table only, so that each can be replaced."""
    public = {s.name for s in exported(agent)}
    wrong = set()
    function = ""
    for line in run("objdump", "-d", "--no-show-raw-insn", agent).splitlines():
        head = re.match(r"[0-9a-f]+ <([^>]+)>:", line)
        if head:
            function = head.group(1).partition("@")[0].partition(".")[0]
        target = re.search(r"\b(?:call|j\w+)\s+[0-9a-f]+ <([^>+@]+)(?:@[^>+]*)?>", line)
        if target and target.group(1) in public and target.group(1) != function:
            wrong.add(f"{function} reaches {target.group(1)} directly")
    return sorted(wrong)


def main():
    check, agent = sys.argv[1:]
    wrong = globals()["check_" + check](agent)
    for line in wrong:
        print(line)
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
