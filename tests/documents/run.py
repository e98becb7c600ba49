#!/usr/bin/env python3
"""Runs the commands and programs of the documents, in a network namespace where the system allows.

run.py BUILD_DIR   with a staged install of this build in place of the blocks marked "build"
run.py             as a reader would: everything, in a clone of this tree; takes a full build

The word after the language of a fenced block says what it is:
  cmake FILE, cpp FILE prints=N   a file of a program, which must print N lines
  cpp fragment                    must compile behind every public header
  sh                              runs in the folder above the clone
  sh background                   runs until the document ends
  sh run                          ends with the document's program
  sh clone, sh build              fetch the sources; build and install them
  sh ci                           runs in the clone, without BUILD_DIR only
  sh skip: REASON                 does not run
  json                            must be JSON; html page must be accepted as a template
"""
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

source = pathlib.Path(__file__).resolve().parents[2]
build = pathlib.Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else None
documents = [source / "README.md", source / "CONTRIBUTING.md", *sorted((source / "docs").glob("*.md"))]
faults = []


def shell(command, folder, **options):
    path = f"{folder}/kelvara-install/bin:{os.environ['PATH']}"
    data = f"{folder}/data"
    return subprocess.Popen(["bash", "-euc", command], cwd=folder, text=True,
                            env={**os.environ, "PATH": path, "XDG_DATA_HOME": data,
                                 "CCACHE_BASEDIR": f"{folder}/kelvara"}, **options)


def run(command, folder, where):
    process = shell(command, folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    output, _ = process.communicate()
    if process.returncode != 0:
        faults.append(f"{where}: exit status {process.returncode}: {command}\n{output[-3000:]}")


def eventually(condition, seconds):
    until = time.monotonic() + seconds
    while not condition() and time.monotonic() < until:
        time.sleep(0.1)


def prints(command, folder, lines, where):
    """Starts a program that does not end, waits for its lines on standard output and ends it."""
    printed, errors = folder / "printed", folder / "errors"
    process = shell(command, folder, stdout=printed.open("w"), stderr=errors.open("w"),
                    start_new_session=True)
    count = lambda: len(re.findall(r"^(?!<KVA>).*[.]$", printed.read_text(), re.M))
    eventually(lambda: process.poll() is not None or count() >= lines, 300)
    if count() < lines:
        faults.append(f"{where}: printed less than {lines} lines:\n{printed.read_text()[-2000:]}"
                      f"{errors.read_text()[-2000:]}")
    end(process)


def end(process):
    if process.poll() is None:
        os.killpg(process.pid, 15)
    process.wait()


def blocks(document):
    fence = re.compile(r"^```(\w+)[ ]?([^\n]*)\n(.*?)^```$", re.S | re.M)
    return [(m[1], m[2], m[3]) for m in fence.finditer(document.read_text())]


def check_references(document):
    """Links lead to files and headings; named test programs, tests and scripts exist."""
    text = document.read_text()
    for path, anchor in re.findall(r"\]\((?!http)([^)#\s]*)(?:#([^)]*))?\)", text):
        target = (document.parent / path).resolve() if path else document
        if not target.exists():
            faults.append(f"{document.name}: no file {path}")
        elif anchor:
            headings = re.findall(r"^#+ (.*)$", target.read_text(), re.M)
            names = [re.sub(r"[^\w\- ]", "", h.lower()).replace(" ", "-") for h in headings]
            if anchor not in names:
                faults.append(f"{document.name}: no heading {path}#{anchor}")
    for script in re.findall(r"(?<![\w/])(?:scripts|tests)/[\w./-]+\w", text):
        if not (source / script).exists():
            faults.append(f"{document.name}: no file {script}")
    for program, pattern in re.findall(r"build/dev/bin/(\w+_tests) --gtest_filter='([^']+)'", text):
        if build and (build / "bin" / program).exists():
            tests = subprocess.run([build / "bin" / program, "--gtest_list_tests",
                                    f"--gtest_filter={pattern}"], capture_output=True, text=True)
            if "\n  " not in tests.stdout:
                faults.append(f"{document.name}: {program} has no test {pattern}")


def compile_fragment(code, folder, where):
    headers = "".join(f"#include <Kelvara/{header.name}>\n"
                      for header in (folder / "kelvara-install/include/Kelvara").glob("*.h"))
    (folder / "fragment.cpp").write_text(f"#include <cstdio>\n{headers}{code}")
    run("g++ -std=c++20 -fsyntax-only -Wall -Werror -I kelvara-install/include "
        "$(pkg-config --cflags gtk4) fragment.cpp", folder, where)


def run_program(program, lines, folder, name):
    run(f"cmake -S {program} -B {program}/build -G Ninja -DCMAKE_BUILD_TYPE=Debug "
        f"-DCMAKE_PREFIX_PATH=$PWD/kelvara-install && cmake --build {program}/build", folder, name)
    target = re.search(r"add_executable\((\S+)", (program / "CMakeLists.txt").read_text())[1]
    prints(f"{program}/build/{target}", folder, lines, name)


def run_document(document, folder):
    program, lines, running = folder / "my-game", 0, []
    serving = "kelvara-install/bin/kelvara-sandbox --port 8000 --quiet"
    shutil.rmtree(program, ignore_errors=True)
    program.mkdir()
    all_blocks = blocks(document)
    needs_server = not any("kelvara-sandbox --port 8000" in code for _, _, code in all_blocks)

    def start(command):
        running.append(shell(f"exec {command}", folder, start_new_session=True,
                             stdout=subprocess.DEVNULL))
        port = int(re.search(r"--port (\d+)", command)[1])
        eventually(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, 60)

    for kind, words, code in all_blocks:
        where = f"{document.name}: {kind} {words}".rstrip()
        if kind == "sh" and words == "build" and not build:
            run(code, folder, where)
        if needs_server and (folder / "kelvara-install").exists() and not running:
            start(serving)
        if kind == "json":
            json.loads(code)
        elif kind == "html":
            body = json.dumps({"tmpl": "image-with-end-card", "html": code}).encode()
            urllib.request.urlopen(urllib.request.Request(
                "http://127.0.0.1:8000/control/template", body, {"Content-Type": "application/json"}))
        elif kind == "cpp" and words == "fragment":
            compile_fragment(code, folder, where)
        elif kind in ("cmake", "cpp"):
            name, *rest = words.split()
            (program / name).write_text(code)
            lines = int(rest[0].removeprefix("prints=")) if rest else lines
        elif kind == "sh" and words == "background":
            start(code)
        elif kind == "sh" and words == "run":
            prints(code, folder, lines, where)
            lines = 0
        elif kind == "sh" and words == "ci" and not build:
            run(code, folder / "kelvara", where)
        elif kind == "sh" and not words:
            run(code, folder, where)
        elif kind != "sh" or not re.match(r"clone|build|ci|skip: .", words):
            faults.append(f"{where}: what is this block?")
    if lines:
        run_program(program, lines, folder, document.name)
    for process in running:
        end(process)


if "KELVARA_DOCUMENTS_INSIDE" not in os.environ:
    os.environ["KELVARA_DOCUMENTS_INSIDE"] = "1"
    isolated = subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode == 0
    if build and isolated:
        os.execvp("unshare", ["unshare", "--net", "sh", "-c", 'ip link set lo up && exec "$@"', "sh",
                              str(source / "scripts/with-display"), *sys.argv])
    os.execv(source / "scripts/with-display", ["with-display", *sys.argv])

with tempfile.TemporaryDirectory() as name:
    folder = pathlib.Path(name)
    if build:
        subprocess.run(["cmake", "--install", build, "--prefix", folder / "kelvara-install"],
                       check=True, stdout=subprocess.DEVNULL)
    else:
        subprocess.run(["git", "clone", "-q", source, folder / "kelvara"], check=True)
    # The page that builds and installs comes first.
    for document in sorted(documents, key=lambda each: each.name != "getting-started.md"):
        check_references(document)
        run_document(document, folder)
print("\n".join(faults) or f"{len(documents)} documents: every command and program works")
sys.exit(bool(faults))
