"""What the tests of the pages read out of them: the data that a page carries, and what its own scripts make of it."""

import json
import pathlib
import re
import shutil
import subprocess

from conftest import qelix

ASSETS = pathlib.Path(__file__).parents[2] / "Components/Qelix/Pages/assets"


def make_page(command, session, output, status=0):
    result = qelix(command, session, "-o", output)
    assert result.returncode == status, result.stderr
    assert result.stdout == f"{output}\n"
    return output.read_text()


def data_of(page):
    """The data of a page; found as a browser finds it, up to the first end of its element."""
    (begin,) = re.findall(r'<script type="application/json" id="data">', page)
    return json.loads(page.split(begin)[1].split("</script")[0])


def evaluate(page, *expressions, scripts=()):
    """What expressions of JavaScript come to, with the page's models and its data."""
    script = "".join((ASSETS / name).read_text()
                     for name in ["common.js", "flameModel.js", "timelineModel.js", *scripts])
    script += f"const data = JSON.parse(require('fs').readFileSync(0, 'utf8'));\n"
    script += f"console.log(JSON.stringify([{','.join(expressions)}]));"
    result = subprocess.run(["node", "-e", script], input=json.dumps(data_of(page)), capture_output=True, text=True,
                            timeout=120)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def built(page):
    """The elements that the page's own scripts build, without a browser: [tag, id, text]."""
    script = pathlib.Path(__file__).parent / "page_document.js"
    result = subprocess.run(["node", script], input=page, capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    return [json.loads(line) for line in result.stdout.splitlines()]


def browser():
    return shutil.which("chromium")


def rendered(path, folder, script=""):
    """The document after its scripts, and a further one of the test, have run in a browser."""
    page = pathlib.Path(path).read_text()
    shown = folder / "shown.html"
    shown.write_text(page.replace("</body>", f"<script>{script}</script></body>"))
    command = [browser(), "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={folder / 'profile'}",
               "--window-size=1200,800", "--dump-dom", shown.as_uri()]
    result = subprocess.run(command, capture_output=True, text=True, timeout=240)
    assert result.returncode == 0, result.stderr
    return result.stdout
