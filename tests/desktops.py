#!/usr/bin/python3
"""desktops.py BIN_DIR DESKTOP: plays an interstitial in example-gtk on one kind of desktop.
desktops.py BIN_DIR example-NAME: plays both formats in that example by keys alone.

On a desktop, checks with AT-SPI what assistive technology sees, with the page itself its size and
scale, and in a picture of the screen that the page is drawn there. Closes the ad by a key or the
pointer. Runs in a network namespace and session bus of its own. Exits 77 where the system refuses
namespaces or a tool is missing.
"""
import dataclasses
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

NAMES = {"en": ("Advertisement", "Close", "Privacy"), "de": ("Werbung", "Schließen", "Datenschutz"),
         "tr": ("Reklam", "Kapat", "Gizlilik"), "ar": ("إعلان", "إغلاق", "الخصوصية")}


@dataclasses.dataclass
class Desktop:
    display: str = "x11"  # or "wayland": weston in an X server, without OpenGL
    manager: bool = True  # X11 has a window manager
    scale: int = 1
    language: str = "en"
    settings: str = ""    # GTK's
    close: str = "escape"
    scheme: str = "light"
    example: str = "gtk"


DESKTOPS = {
    "openbox": Desktop(),
    "no-window-manager": Desktop(manager=False, language="de", close="pointer"),
    "scale-2": Desktop(scale=2, close="pointer"),
    "large-text": Desktop(settings="gtk-xft-dpi=147456"),
    "right-to-left": Desktop(language="ar", close="control"),
    "dark": Desktop(settings="gtk-application-prefer-dark-theme=1", scheme="dark"),
    "wayland": Desktop(display="wayland", language="tr", close="pointer"),
    "wayland-scale-2": Desktop(display="wayland", scale=2, close="pointer"),
    **{f"example-{name}": Desktop(example=name) for name in ("gtk", "gtkmm", "qt", "sdl")},
}

# Marks the middle of each edge of the page in a colour that nothing else has.
MARK = "#ff00c8"
PROBE = """<style>
.mark { position: fixed; width: 12px; height: 12px; background: %s; z-index: 9 }
</style>
<div class="mark" style="top: 0; left: 50%%"></div><div class="mark" style="bottom: 0; left: 50%%"></div>
<div class="mark" style="left: 0; top: 40%%"></div><div class="mark" style="right: 0; top: 40%%"></div>
<script>
setInterval(function () {
  var position = mraid.getCurrentPosition();
  new Image().src = 'http://127.0.0.1:8001/?' + new URLSearchParams({
    width: innerWidth, height: innerHeight, scale: devicePixelRatio,
    mraidWidth: position.width, mraidHeight: position.height, viewable: mraid.isViewable(),
    scheme: matchMedia('(prefers-color-scheme: dark)').matches ? 'dark' : 'light',
    language: navigator.language, focus: document.hasFocus()});
}, 100);
</script>""" % MARK


def main():
    binaries, name = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    desktop = DESKTOPS[name]
    if "INSIDE" not in os.environ:
        enter(binaries, desktop)
    with tempfile.TemporaryDirectory() as work:
        run = Run(binaries, desktop, pathlib.Path(work))
        try:
            run.play_both() if name.startswith("example-") else run.play()
        finally:
            run.end()
    print(f"{name}: the ad is as it should be")


def enter(binaries, desktop):
    """Starts this script again in a namespace with a session bus. Does not return."""
    tools = ["convert", "import", "xdotool", "Xvfb", binaries / f"example-{desktop.example}"]
    tools += ["openbox"] + ["weston"] * (desktop.display == "wayland")
    missing = [str(tool) for tool in tools if not shutil.which(tool)]
    try:
        import gi
        gi.require_version("Atspi", "2.0")
    except (ImportError, ValueError):
        missing.append("python3-gi with gir1.2-atspi-2.0")
    if missing:
        skip(f"{', '.join(missing)} missing")
    if subprocess.run(["unshare", "--net", "true"], stderr=subprocess.DEVNULL).returncode:
        skip("network namespaces are refused here")
    kept = {key: value for key, value in os.environ.items()
            if key not in ("DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "GTK_A11Y", "NO_AT_BRIDGE",
                           "GDK_DEBUG", "AT_SPI_BUS_ADDRESS")}
    os.execvpe("unshare", ["unshare", "--net", "dbus-run-session", "--", sys.executable, *sys.argv],
               {**kept, "INSIDE": "1"})


def skip(why):
    print(f"{why}: skipped")
    sys.exit(77)


def eventually(what, condition, seconds=30):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            if value := condition():
                return value
        except RuntimeError:  # AT-SPI's: an object has gone meanwhile
            pass
        time.sleep(0.1)
    raise SystemExit(f"waited in vain: {what}")


def expect(what, value, wanted):
    if value != wanted:
        raise SystemExit(f"{what} is {value}, not {wanted}")


def sandbox(path, body=None):
    request = urllib.request.Request(f"http://127.0.0.1:8000/control/{path}",
                                     body and json.dumps(body).encode(), {"Content-Type": "application/json"})
    with urllib.request.urlopen(request) as answer:
        return json.load(answer) if body is None else None


class Run:
    def __init__(self, binaries, desktop, work):
        self.binaries, self.desktop, self.work = binaries, desktop, work
        self.processes = []
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        os.chmod(work, 0o700)
        (work / "gtk-4.0").mkdir()
        (work / "gtk-4.0/settings.ini").write_text(f"[Settings]\n{desktop.settings}\n")
        os.environ.update(XDG_RUNTIME_DIR=str(work), XDG_DATA_HOME=str(work), XDG_CONFIG_HOME=str(work),
                          GSETTINGS_BACKEND="memory", LC_ALL="C.UTF-8", LANGUAGE=desktop.language, TZ="UTC")
        # The session bus starts the accessibility bus, whose socket is in XDG_RUNTIME_DIR.
        subprocess.run(["dbus-update-activation-environment", "--all"], check=True)

    def start_host(self):
        self.start_display()
        self.start_server()
        if self.desktop.display == "wayland":
            self.check_warning()
        self.start(self.binaries / f"example-{self.desktop.example}", file="host", **self.environment())

    def play_both(self):
        self.start_host()
        eventually("the host is ready", lambda: "Application initalized" in (self.work / "host").read_text())
        eventually("an active window", lambda: subprocess.run(["xdotool", "getactivewindow"],
                                                              capture_output=True).stdout)
        # The SDL example has no buttons.
        modifier = "" if self.desktop.example == "sdl" else "alt+"
        for shown, key in enumerate("ir", 1):
            self.key(modifier + key)
            eventually("the countdown's end", lambda: self.reports("comp") == shown)
            eventually("the end of the ad", lambda: self.reports("dism") == shown or self.key("Escape"))
            expect("reports of an impression", self.reports("imp"), shown)

    def play(self):
        self.start_host()
        import gi
        gi.require_version("Atspi", "2.0")
        from gi.repository import Atspi
        self.atspi = Atspi
        ad, close, privacy = NAMES[self.desktop.language]

        eventually("the host is ready", lambda: self.find("Ready"))
        expect("warnings of pages that are not drawn", "No ad will be drawn" in (self.work / "host").read_text(), False)
        opener = self.find("Interstitial", Atspi.Role.PUSH_BUTTON)
        eventually("the focus on the host's button", lambda: self.focused(opener))
        opener.get_action_iface().do_action(0)
        dialog = eventually("an ad", lambda: self.find(ad, Atspi.Role.DIALOG))
        self.key("Escape")  # the countdown runs
        eventually("the page is viewable", lambda: self.measured.get("viewable") == "true")
        expect("the dialog's modality", dialog.get_state_set().contains(Atspi.StateType.MODAL), True)
        eventually("only the ad is accessible", lambda: not self.find("Interstitial"))
        # The window's own close button has the same name on Wayland.
        control = eventually("the close control", lambda: self.find(close, root=dialog))
        self.check_places(dialog, {close: "top", privacy: "bottom"})
        x, y = self.check_picture()
        expect("reports of a dismissal", self.reports("dism"), 0)

        # One press only: a second one may reach the host.
        if self.desktop.close == "pointer":
            self.click(x + (int(self.measured["width"]) - 30) * self.desktop.scale, y + 30 * self.desktop.scale)
        elif self.desktop.close == "control":
            eventually("the focus on the close control", lambda: self.focused(control))
            self.key("Return")
        else:
            self.key("Escape")
        eventually("the end of the ad", lambda: not self.find(ad))
        eventually("the report of the dismissal", lambda: self.reports("dism"))
        eventually("the focus in the host", lambda: self.focused(self.find("Interstitial", Atspi.Role.PUSH_BUTTON)))

    # --- the desktop ---

    def check_warning(self):
        """Without the variable of environment(), the host logs that no ad will be drawn."""
        self.start(self.binaries / "example-gtk", file="unset", GDK_BACKEND="wayland")
        eventually("the warning", lambda: "WEBKIT_DISABLE_DMABUF_RENDERER=1" in (self.work / "unset").read_text())
        unset = self.processes.pop()
        unset.kill()
        unset.wait()

    def environment(self):
        # Without a GPU in the compositor, the window stops drawing when WebKit passes it a page in a
        # buffer of the GPU.
        if self.desktop.display == "wayland":
            return {"GDK_BACKEND": "wayland", "WEBKIT_DISABLE_DMABUF_RENDERER": "1"}
        return {"GDK_BACKEND": "x11", "GDK_SCALE": str(self.desktop.scale)}

    def start_display(self):
        desktop = self.desktop
        read, write = os.pipe()
        # Servers in two network namespaces would both take the first number, and share the socket's
        # file, which web processes use.
        os.environ["DISPLAY"] = f":{1000 + os.getpid() % 50000}"
        self.start("Xvfb", os.environ["DISPLAY"], "-displayfd", str(write), "-screen", "0", "2000x1500x24",
                   pass_fds=[write])
        os.read(read, 9)
        if desktop.manager:  # weston takes keys only in a window that has the focus
            self.start("openbox")
        if desktop.display == "x11":
            return
        self.start("weston", "--backend=x11-backend.so", "--use-pixman", "--width=1000", "--height=720",
                   f"--scale={desktop.scale}", "--socket=weston", "--idle-time=0", "--no-config")
        eventually("weston", lambda: (self.work / "weston").exists())
        os.environ["WAYLAND_DISPLAY"] = "weston"

    def start_server(self):
        self.start(sys.executable, "-m", "http.server", "8001", "--bind", "127.0.0.1", file="measured")
        self.start(self.binaries / "kelvara-sandbox", "--memory", "--quiet", file="sandbox")
        eventually("the sandbox", lambda: "http" in (self.work / "sandbox").read_text())
        template = pathlib.Path(__file__).parents[1] / "sandbox/templates/image-with-end-card.html"
        html = template.read_text().replace("</body>", PROBE + "</body>")
        sandbox("template", {"tmpl": "image-with-end-card", "html": html})
        sandbox("scenario", {"endpoint": "/bid/load", "scenario": "replace", "key": "data.crea.adur", "value": 2})

    @property
    def measured(self):
        """What the page measured last, as its requests to the server at port 8001 say."""
        requests = re.findall(r'"GET /\?(\S*)', (self.work / "measured").read_text())
        return dict(urllib.parse.parse_qsl(requests[-1])) if requests else {}

    def start(self, *command, file=None, pass_fds=(), **environment):
        output = open(self.work / file, "w") if file else subprocess.DEVNULL
        self.processes.append(subprocess.Popen([str(part) for part in command], stdout=output,
                                               stderr=subprocess.STDOUT, pass_fds=pass_fds,
                                               env={**os.environ, **environment}, cwd=self.work))

    def end(self):
        if sys.exc_info()[0] and (self.work / "host").exists():
            print((self.work / "host").read_text(), self.measured, file=sys.stderr)
        for process in reversed(self.processes):
            process.terminate()
            process.wait()

    # --- input ---

    def key(self, key):
        subprocess.run(["xdotool", "key", key], check=True)

    def click(self, x, y):
        subprocess.run(["xdotool", "mousemove", str(x), str(y), "click", "1"], check=True)

    # --- what the desktop sees ---

    def accessibles(self, root):
        for i in range(root.get_child_count()):
            child = root.get_child_at_index(i)
            if child:
                yield child
                yield from self.accessibles(child)

    def find(self, name, role=None, root=None):
        root = root or self.atspi.get_desktop(0)
        root.clear_cache()
        for one in self.accessibles(root):
            # GTK's name of a button with a mnemonic is "_Name Name".
            if one.get_name() in (name, f"_{name} {name}") and role in (None, one.get_role()):
                return one
        return None

    def focused(self, accessible):
        accessible and accessible.clear_cache()
        return accessible and accessible.get_state_set().contains(self.atspi.StateType.FOCUSED)

    def reports(self, event):
        return json.dumps(sandbox("state")).count(f'"{event}": true')

    def check_places(self, dialog, controls):
        def place(accessible):
            return accessible.get_component_iface().get_extents(self.atspi.CoordType.WINDOW)

        page = (self.measured["width"], self.measured["height"])
        expect("the page's size to MRAID", (self.measured["mraidWidth"], self.measured["mraidHeight"]), page)
        expect("the page's scale", float(self.measured["scale"]), float(self.desktop.scale))
        expect("the page's colours", self.measured["scheme"], self.desktop.scheme)
        if self.desktop.display != "x11":
            return  # GTK gives assistive technology no sizes
        whole = place(dialog)
        expect("the page's size", page, (str(whole.width), str(whole.height)))
        for name, edge in controls.items():
            box = place(self.find(name, root=dialog))
            expect(f"{name}'s place", (box.x, box.y, box.width, box.height),
                   (whole.x if self.desktop.language == "ar" else whole.x + whole.width - 60,
                    whole.y if edge == "top" else whole.y + whole.height - 60, 60, 60))

    def check_picture(self):
        """Returns the place of the page's origin on the screen."""
        def marked():
            picture = self.work / "picture.png"
            subprocess.run(["import", "-window", "root", picture], check=True)
            box = subprocess.run(["convert", picture, "-fill", "black", "+opaque", MARK, "-format", "%@", "info:"],
                                 capture_output=True, text=True).stdout
            size, x, y = box.split("+")
            wanted = [int(float(self.measured[side]) * self.desktop.scale) for side in ("width", "height")]
            return size == f"{wanted[0]}x{wanted[1]}" and (int(x), int(y))

        return eventually("the whole page on the screen", marked, 10)


main()
