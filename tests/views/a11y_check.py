"""Walks the accessibility tree of every page of the window, as a screen reader would, and
fails with the list of what a screen reader could not name or would name wrongly.

Usage: a11y_check.py PROBE   (run inside a private X display and session bus: a11y_check.sh)
"""

import subprocess
import sys
import time

import pyatspi

PROBE_SECONDS = 30

BUTTON = frozenset({pyatspi.ROLE_PUSH_BUTTON})
TOGGLE = frozenset({pyatspi.ROLE_CHECK_BOX, pyatspi.ROLE_TOGGLE_BUTTON, pyatspi.ROLE_RADIO_BUTTON})
FIELD = frozenset({pyatspi.ROLE_TEXT, pyatspi.ROLE_ENTRY, pyatspi.ROLE_PASSWORD_TEXT})
ITEM = frozenset({pyatspi.ROLE_LIST_ITEM})
ALERT = frozenset({pyatspi.ROLE_ALERT})
ACTIONABLE = BUTTON | TOGGLE | FIELD | ITEM


def home(pause_button, buttons):
    """The home page with the folders Reports and Contracts."""
    return ({BUTTON: ["Recent activity", pause_button, "Add a folder", "Stop sharing Reports",
                      "Stop sharing Contracts", "Unpair this computer"],
             TOGGLE: ["Read only: Reports", "Read only: Contracts", "Ask before writing files"],
             ITEM: ["Reports, *", "Contracts, *"]}, buttons)


# Per page: the names each kind of control must have ("*" at the end: begins so), and how many
# push buttons the page has.
PAGES = {
    "welcome": ({BUTTON: ["Get Started"]}, 1),
    "pair-code": ({BUTTON: ["Pair", "Back"], FIELD: ["Pairing code"]}, 2),
    "pair-error": ({BUTTON: ["Pair", "Back"], FIELD: ["Pairing code"],
                    ALERT: ["That code is invalid or expired.*"]}, 2),
    "folders": ({BUTTON: ["Stop sharing Reports", "Stop sharing Contracts", "Add Folder…",
                          "Continue"],
                 ITEM: ["Reports, *", "Contracts, *"]}, 4),
    "done": ({BUTTON: ["Finish"]}, 1),
    "home-online": home("Pause sharing", 6),
    "home-offline": home("Pause sharing", 6),
    # The header's button and the status card's.
    "home-paused": home("Resume sharing", 7),
    "activity": ({BUTTON: ["Back to the home page"],
                  ITEM: ["Read Reports/summary.md, done, *",
                         "Write Reports/summary.md, failed, *"]}, 1),
}


def matches(name, want):
    return name.startswith(want[:-1]) if want.endswith("*") else name == want


def shown(node):
    states = node.getState()
    return states.contains(pyatspi.STATE_SHOWING) and states.contains(pyatspi.STATE_VISIBLE)


def walk(node, found, depth=0):
    if depth > 40 or len(found) > 2000:
        return
    for index in range(node.childCount):
        child = node.getChildAtIndex(index)
        if child is None:
            continue
        if shown(child):
            found.append(child)
        walk(child, found, depth + 1)


def describe(node):
    return "%s %r" % (node.getRoleName(), node.name)


def find_application(pid):
    for _ in range(100):
        desktop = pyatspi.Registry.getDesktop(0)
        for index in range(desktop.childCount):
            app = desktop.getChildAtIndex(index)
            try:
                if app is not None and app.get_process_id() == pid and app.childCount > 0:
                    return app
            except Exception:
                pass
        time.sleep(0.1)
    return None


def check_page(probe, page):
    expected, buttons = PAGES[page]
    process = subprocess.Popen([probe, page, str(PROBE_SECONDS)], stdout=subprocess.PIPE,
                               text=True)
    problems = []
    try:
        line = process.stdout.readline().strip()
        if line != "ready " + page:
            return ["the probe did not show the page (said %r)" % line]
        app = find_application(process.pid)
        if app is None:
            return ["the probe never appeared on the accessibility bus"]
        nodes = []
        # The tree fills in as the bridge hears of the items; a few looks settle it.
        for _ in range(20):
            nodes = []
            walk(app, nodes)
            if sum(1 for n in nodes if n.getRole() in BUTTON) >= buttons:
                break
            time.sleep(0.2)
        for node in nodes:
            role = node.getRole()
            name = (node.name or "").strip()
            focusable = node.getState().contains(pyatspi.STATE_FOCUSABLE)
            if (role in ACTIONABLE or focusable) and not name:
                problems.append("nameless " + describe(node))
        for roles, names in expected.items():
            present = [n.name or "" for n in nodes if n.getRole() in roles]
            for want in names:
                if not any(matches(have, want) for have in present):
                    problems.append("nothing named %r among %r" % (want, present))
        count = sum(1 for n in nodes if n.getRole() in BUTTON)
        if count != buttons:
            problems.append("%d push buttons, expected %d: %r"
                            % (count, buttons, [n.name for n in nodes if n.getRole() in BUTTON]))
        # Every "stop sharing" button names its folder.
        for node in nodes:
            if node.getRole() in BUTTON and (node.name or "").startswith("Stop sharing") \
                    and node.name not in ("Stop sharing Reports", "Stop sharing Contracts"):
                problems.append("a remove button that names no folder: " + describe(node))
        print("%-12s %3d nodes, %d buttons, %d problems" % (page, len(nodes), count,
                                                            len(problems)))
    finally:
        process.kill()
        process.wait()
    return ["%s: %s" % (page, problem) for problem in problems]


def main():
    probe = sys.argv[1]
    problems = []
    for page in PAGES:
        problems.extend(check_page(probe, page))
    if problems:
        print("\n".join(problems))
        print("FAIL: %d problems on %d pages" % (len(problems), len(PAGES)))
        return 1
    print("PASS: %d pages, every control named" % len(PAGES))
    return 0


if __name__ == "__main__":
    sys.exit(main())
