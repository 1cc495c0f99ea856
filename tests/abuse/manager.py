"""The user's service manager, with a session bus of its own that lets it start the helper."""

import contextlib
import os
import pathlib
import re
import subprocess

from bus_peer import Peer
from case import Skipped
from session import HELPER_PROGRAM, ROOT, eventually

UNIT = "com.brindlemoor.Tessaloom.helper.service"


def start():
    """From here on the case's bus is the manager's."""
    if not os.environ["ABUSE_MANAGER"] or not os.path.exists("/lib/systemd/systemd"):
        raise Skipped("there is no control group here for a service manager, or no service manager")
    runtime = pathlib.Path(os.environ["ABUSE_RUNTIME"])
    environment = {"PATH": "/usr/bin:/bin", "HOME": os.environ["HOME"], "XDG_RUNTIME_DIR": str(runtime)}
    for key, folder, name in (("XDG_CONFIG_HOME", "systemd/user", UNIT), ("XDG_DATA_HOME", "dbus-1/services", "group." + UNIT)):
        environment[key] = str(runtime / key)
        target = runtime / key / folder / name
        target.parent.mkdir(parents=True)
        text = re.sub(r"@HELPER_\w+@", str(HELPER_PROGRAM), (ROOT / f"packaging/linux/{name}.in").read_text())
        wrapper = "".join(f"Environment={name}={value}\n" for name, value in os.environ.items()
                          if name.startswith(("LD_PRELOAD", "NSS_WRAPPER")))
        target.write_text(text.replace("[Service]\n", "[Service]\n" + wrapper))
    subprocess.Popen(["/lib/systemd/systemd", "--user"], env=environment, stdin=subprocess.DEVNULL)
    os.environ |= {"XDG_RUNTIME_DIR": str(runtime), "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/bus"}
    eventually(is_reachable)


def is_reachable():
    with contextlib.suppress(OSError), Peer():  # The bus's socket is there before it listens.
        return True


def result():
    shown = subprocess.run(["systemctl", "--user", "show", "--property=Result", "--value", UNIT], capture_output=True, text=True)
    return shown.stdout.strip()
