#!/usr/bin/env python3
"""verdicts.py BUILD_DIR: kelvara-preview plays good creatives, the sandbox's among them,
and bad ones, each bad for another reason, and names exactly that reason."""
import functools
import http.server
import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import xml.etree.ElementTree
from concurrent.futures import ThreadPoolExecutor

build = pathlib.Path(sys.argv[1]).resolve()
temporary = tempfile.TemporaryDirectory()
output = pathlib.Path(temporary.name)
creatives = pathlib.Path(__file__).parent / "creatives"
templates = build / "share/kelvara/sandbox/templates"
clips = build / "share/kelvara/sandbox/creatives"

video = output / "video.json"
video.write_text(json.dumps({
    "crea": {"adt": "rewarded", "ctyp": "video", "adur": 2, "titl": "Paper Comets",
             "bton": {"en": "Play free"}, "curl": "https://landing.example/"},
    "fls": [{"ftyp": "main", "ornt": "portrait", "furl": "comets-portrait.webm"}]}))
(output / "comets-portrait.webm").symlink_to((clips / "comets-portrait.webm").resolve())

handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=creatives)
web = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
threading.Thread(target=web.serve_forever, daemon=True).start()

# The rules that a page breaks, and their faults, at the end of a good page. Rules that judge alike
# are broken by different pages: a rule that named the fault of the other would show.
FAULTS = {
    ("listeners", "commands", "corners"): """<script>
  mraid.addEventListener('viewableChange', function () { undefinedFunction(); });
  mraid.addEventListener('ready', function () { mraid.expand(); });
</script>
<a style="position: absolute; right: 8px; top: 8px" href="https://landing.example/">More</a>""",
    ("errors", "escapes", "sound"): r"""<script>
  mraid.addEventListener('ready', function () {
    setTimeout(function () { document.querySelector('.missing').textContent = 'late'; }, 0);
  });
  document.querySelector('h1').textContent = `two\nlines`;
  var context = new AudioContext();
  var tone = context.createOscillator();
  tone.connect(context.destination);
  tone.start();
</script>""",
    ("taps", "files", "frame-rate"): """<img alt="" src="picture.png" width="40">
<script>
  mraid.addEventListener('viewableChange', function (isViewable) {
    if (isViewable) mraid.open('https://landing.example/untapped');
  });
  setInterval(function () {
    var end = performance.now() + 900;
    while (performance.now() < end);
  }, 910);
</script>""",
}
plain = (creatives / "good/plain.html").read_text()


def bad(rules):
    page = output / f"bad-{'-'.join(rules)}.html"
    page.write_text(f"{plain}{FAULTS[rules]}\n")
    return [page], list(rules), {}


# Arguments, the broken rules, and what the report says was opened and reported. The longest is first.
rows = [
    ([templates / "rewarded-video.html", "--ad", video], [],
     {"reported": {"impression": True, "clicked": False, "completed": True, "dismissed": True,
                   "quarter": 4, "failedToShow": False}}),
    (["good/plain.html"], [], {"opened": ["https://landing.example/"]}),
    (["good/playable"], [], {"opened": ["https://landing.example/?taps=1"]}),
    ([f"http://127.0.0.1:{web.server_port}/good/playable/index.html"], [],
     {"opened": ["https://landing.example/?taps=1"]}),
    (["good/offer", "--language", "de", "--safe-area", "30,0,20,0"], [],
     {"opened": ["https://landing.example/offer?text=Zum%20Angebot"]}),
    ([templates / "playable.html", "--ad", "good/offer/ad.json"], [], {}),
    ([templates / "image-with-end-card.html", "--ad", "good/offer/ad.json"], [],
     {"opened": ["https://landing.example/offer"]}),
    *map(bad, FAULTS),
    (["good/offer", "--max-ready", "0.001", "--max-weight", "500"], ["ready-time", "weight"], {}),
]


def play(row):
    """Returns the faults of one row."""
    number, (arguments, broken, said) = row
    folder = output / f"{number}-{pathlib.Path(arguments[0]).stem}"
    folder.mkdir()
    report, junit = folder / "report.json", folder / "junit.xml"
    # A busy machine draws less often than the default limit.
    run = subprocess.run([build / "bin/kelvara-preview", *arguments, "--min-frame-rate", "5",
                          "--report", report, "--junit", junit, "--screenshots", folder],
                         cwd=creatives, text=True, capture_output=True, timeout=200)
    if run.returncode != (1 if broken else 0):
        return [f"exit status {run.returncode}\n{run.stdout}{run.stderr}"]
    faults = []
    seen = json.loads(report.read_text())
    named = [rule["id"] for rule in seen["rules"] if not rule["passed"]]
    if named != broken:
        faults.append(f"broken rules {named}, expected {broken}\n{run.stdout}")
    cases = list(xml.etree.ElementTree.parse(junit).getroot())
    if [case.get("name") for case in cases if case.find("failure") is not None] != broken:
        faults.append("JUnit names other rules")
    if len(cases) != len(seen["rules"]):
        faults.append(f"{len(cases)} test cases for {len(seen['rules'])} rules")
    faults += [f"{key}: {seen[key]}" for key in said if seen[key] != said[key]]
    faults += [f"no picture {name}" for name in ["1-ready", "2-shown", "3-tapped", "4-finished"]
               if not (folder / f"{name}.png").exists()]
    return faults


status = 0
with ThreadPoolExecutor(2) as pool:
    for (arguments, _, _), faults in zip(rows, pool.map(play, enumerate(rows, 1))):
        status |= bool(faults)
        print("FAIL" if faults else "ok  ", *arguments, *faults)
unread = subprocess.run([build / "bin/kelvara-preview", "missing.html", "--report", output / "none"],
                        capture_output=True)
if unread.returncode != 2:
    print("FAIL a missing creative: exit status", unread.returncode)
    status = 1
sys.exit(status)
