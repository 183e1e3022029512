"""`qelix export`, opened by readers that npm brings: DuckDB, and speedscope's published schema."""

import json
import os
import pathlib
import shutil
import subprocess

import pytest

import export_truth as truth
from conftest import SUBJECT, qelix

PACKAGES = pathlib.Path(__file__).parent / "package.json"


@pytest.fixture(scope="session")
def npm():
    """The folder, in the build, where the packages are installed."""
    folder = pathlib.Path(os.environ["QELIX_NPM"])
    folder.mkdir(parents=True, exist_ok=True)
    if shutil.which("npm") is None:
        pytest.skip("npm is not here")
    wanted = PACKAGES.read_text()
    stamp = folder / "installed.json"
    if not stamp.exists() or stamp.read_text() != wanted:
        (folder / "package.json").write_text(wanted)
        result = subprocess.run(["npm", "install", "--no-audit", "--no-fund", "--ignore-scripts", "--no-package-lock"],
                                cwd=folder, capture_output=True, text=True)
        if result.returncode != 0:
            pytest.skip(f"npm cannot install: {result.stderr.strip().splitlines()[-1:]}")
        stamp.write_text(wanted)
    return folder


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    session = tmp_path_factory.mktemp("export") / "session"
    script = f"{SUBJECT} burn 200 2; {SUBJECT} abandon; exit 0"
    result = qelix("run", "--sample", "--min", "all=0", "-o", session, "--", "sh", "-c", script)
    assert result.returncode == 0, result.stderr
    return session


def exported(session, *options):
    result = qelix("export", *options[:1], session, *options[1:])
    assert result.returncode == 0, result.stderr


def duckdb(npm, *queries):
    """The first row of each query."""
    script = """
        const { DuckDBInstance } = require('@duckdb/node-api');
        (async () => {
            const connection = await (await DuckDBInstance.create()).connect();
            const rows = [];
            for (const query of process.argv.slice(1))
                rows.push((await (await connection.runAndReadAll(query)).getRowsJson())[0]);
            console.log(JSON.stringify(rows));
        })().catch(error => { console.error(String(error)); process.exit(1); });"""
    result = subprocess.run(["node", "-e", script, *queries], cwd=npm, capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def test_speedscopes_own_schema(npm, recorded, tmp_path):
    jsonschema = pytest.importorskip("jsonschema")
    path = tmp_path / "session.json"
    exported(recorded, "speedscope", "-o", path)
    schema = json.loads((npm / "node_modules/speedscope/dist/release/file-format-schema.json").read_text())
    jsonschema.validate(json.loads(path.read_text()), schema)
    broken = json.loads(path.read_text())
    del broken["shared"]
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate(broken, schema)


@pytest.mark.parametrize("how", ["none", "gzip", "zstd"])
def test_duckdb_reads_the_partitions_in_place(npm, recorded, tmp_path, how):
    folder = tmp_path / "job"
    exported(recorded, "csv", "--partition", "--compress", how, "-o", folder)
    calls, samples = truth.calls_of(recorded), truth.samples_of(recorded)

    def table(name):
        return f"read_csv('{folder}/{name}/*/*.csv*', hive_partitioning = true)"

    rows = duckdb(
        npm,
        f"select count(*), count(distinct pid), min(rank), count(*) filter (end_ns is null) from {table('calls')}",
        f"select sum(duration_ns)::varchar from {table('calls')}",
        f"select count(*), count(*) filter (function = 'WorkSixty') > 0 from {table('samples')}",
        f"select count(distinct (pid, tid)) from {table('threads')}")
    assert [int(value) for value in rows[0]] == [len(calls), len({c.pid for c in calls}), 0,
                                                 len([c for c in calls if c.end is None])]
    assert int(rows[1][0]) == sum(c.end - c.start for c in calls if c.end and c.start)
    assert [int(rows[2][0]), rows[2][1]] == [len(samples), True]
    assert int(rows[3][0]) == len(truth.names_of(recorded))


def test_duckdb_reads_json_lines(npm, recorded, tmp_path):
    path = tmp_path / "session.json.gz"
    exported(recorded, "json", "-o", path)
    rows = duckdb(npm, f"select count(*) filter (type = 'call'), count(*) filter (type = 'sample') from '{path}'")
    assert [int(value) for value in rows[0]] == [len(truth.calls_of(recorded)), len(truth.samples_of(recorded))]
