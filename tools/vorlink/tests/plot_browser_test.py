#!/usr/bin/env python3
"""Opens a page of `vorlink plot` in headless Chromium, offline: the page must run
without a script error, show every requested field in its chart's legend, draw
the series on the canvas, bool fields as steps, and zoom all charts together.
Exits 77 (skipped) only when chromium is missing."""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77
SERIES = ["DdTemperatureData.d1Temp", "DdTemperatureData.boardTemp", "TdAlarmInformationData", "TdEvent"]

# Runs before the page's own scripts: collects their errors.
CATCH = "<script>var errors = []; addEventListener('error', function (e) { errors.push(String(e.message)); });</script>"
# Runs after them: per chart, the legend's labels and the canvas pixels in
# colour (the series; the axes and grid are grey), written into the DOM.
REPORT = """<script>
var charts = [].map.call(document.querySelectorAll('section'), function (s) {
  var canvas = s.querySelector('canvas'), coloured = 0;
  if (canvas) {
    var d = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    for (var i = 0; i < d.length; i += 4)
      if (d[i + 3] > 0 && Math.max(d[i], d[i + 1], d[i + 2]) - Math.min(d[i], d[i + 1], d[i + 2]) > 60) coloured++;
  }
  var labels = [].map.call(s.querySelectorAll('.legend > span'), function (b) { return b.textContent.trim(); });
  return {title: s.querySelector('h2').firstChild.textContent.trim(), labels: labels, coloured: coloured};
});
// Zooming one chart zooms all of them.
var range = vorlinkGraphs[0].xAxisRange(), zoom = [range[0] + 1000, range[0] + 2000];
vorlinkGraphs[0].updateOptions({dateWindow: zoom});
var zoomed = vorlinkGraphs.map(function (g) { return g.xAxisRange().join(' ') == zoom.join(' '); });
var pre = document.createElement('pre');
pre.id = 'report';
var steps = vorlinkGraphs.map(function (g) {   // the series drawn as steps
  return g.getLabels().slice(1).filter(function (name) { return g.getOption('stepPlot', name); });
});
pre.textContent = JSON.stringify({errors: errors, charts: charts, zoomed: zoomed, steps: steps});
document.body.appendChild(pre);
</script>"""


def main():
    tool = sys.argv[1]
    chromium = os.environ.get("CHROMIUM") or shutil.which("chromium")
    if not chromium:
        print("*** SKIPPED: chromium is not installed (apt-get install chromium); the plot page was not checked "
              "in a browser ***", file=sys.stderr)
        return SKIPPED
    with tempfile.TemporaryDirectory() as tmp:
        log, page = os.path.join(tmp, "bus.log"), os.path.join(tmp, "page.html")
        with open(log, "wb") as f:
            f.write(subprocess.run([tool, "synth", "--count", "3000", "--seed", "3"], capture_output=True,
                                   check=True).stdout)
        subprocess.run([tool, "plot", log, *SERIES, "-o", page], check=True)
        with open(page) as f:
            html = f.read()
        with open(page, "w") as f:
            f.write(html.replace("<head>", "<head>" + CATCH, 1).replace("</body>", REPORT + "</body>", 1))
        r = subprocess.run([chromium, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                            "--disable-background-networking", "--disable-component-update", "--disable-sync",
                            "--user-data-dir=" + os.path.join(tmp, "profile"), "--enable-logging=stderr", "--v=0",
                            "--window-size=1200,1600", "--virtual-time-budget=5000", "--dump-dom",
                            "file://" + page], capture_output=True, text=True, timeout=120)
        fields, bools = {}, []
        for name in ("TdAlarmInformationData", "TdEvent"):
            listing = subprocess.run([tool, "list", name], capture_output=True, text=True, check=True).stdout
            fields[name] = [l.split()[2].split(".", 1)[1] for l in listing.splitlines()[1:]]
            bools.append([l.split()[2].split(".", 1)[1] for l in listing.splitlines()[1:]
                          if l.split()[3].startswith("bool")])

    found = re.search(r'<pre id="report">(.*?)</pre>', r.stdout, re.S)
    uncaught = ["console: " + l for l in r.stderr.splitlines() if "Uncaught" in l]
    failures = uncaught + ([] if found else ["no report in the page's DOM (exit status %d)" % r.returncode])
    if found:
        report = json.loads(found.group(1).replace("&quot;", '"').replace("&amp;", "&").replace("&lt;", "<")
                            .replace("&gt;", ">"))
        failures += ["script error: " + e for e in report["errors"]]
        if report["zoomed"] != [True] * 3:
            failures.append(f"zooming the first chart zoomed {report['zoomed']}")
        if report["steps"] != [[], *bools]:
            failures.append(f"series drawn as steps: {report['steps']}, expected the bool fields {bools}")
        want = {"DdTemperatureData": ["d1Temp", "boardTemp"], **fields}
        got = {c["title"]: c for c in report["charts"]}
        if sorted(got) != sorted(want):
            failures.append(f"charts {sorted(got)}, expected {sorted(want)}")
        for title, labels in want.items():
            chart = got.get(title, {"labels": [], "coloured": 0})
            if chart["labels"] != labels:
                failures.append(f"{title}: legend {chart['labels']}, expected {labels}")
            if chart["coloured"] < 200:
                failures.append(f"{title}: {chart['coloured']} coloured pixels on the canvas, nothing drawn")
    for failure in failures:
        print("FAIL:", failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
