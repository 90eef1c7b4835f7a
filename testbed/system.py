"""The system around the daemon, in the namespaces of a test: users, programs, units, logs."""

import shutil
import socket
from collections.abc import Iterable
from pathlib import Path

from testbed.environment import BUILD, run
from testbed.processes import text_of

SERVICE_ID = 990
GROUP_ID = 991  # a second group of the service user


def has_users() -> bool:
    """Whether the namespace has users other than root."""
    return int(text_of(Path("/proc/self/uid_map")).split()[2]) > GROUP_ID


def add_users(folder: Path) -> None:
    """Adds the user lora-veyra, its group, and the group readers. Their files are in `folder`."""
    entries = {
        "passwd": f"lora-veyra:x:{SERVICE_ID}:{SERVICE_ID}::/:/bin/false\n",
        "group": f"lora-veyra:x:{SERVICE_ID}:\nreaders:x:{GROUP_ID}:lora-veyra\n",
    }
    for name, lines in entries.items():
        replace_file(f"/etc/{name}", text_of(Path("/etc") / name) + lines, folder)


def run_as(user: int) -> list[str]:
    """The start of a command that runs a program as this user, with all groups of the user."""
    return ["setpriv", "--reuid", str(user), "--regid", str(user), "--init-groups"]


def install(programs: Iterable[object], folder: Path) -> None:
    """Copies programs of the build directory to a folder that all users can read."""
    shutil.copytree(BUILD / "platform", folder / "platform", ignore=lambda directory, names: [
        name for name in names if not name.startswith("libzep-platform.so")])
    for program in programs:
        shutil.copy(str(program), folder)


def install_unit(lines: str) -> None:
    """Installs an administrator's unit file with these lines, and a packaged one that differs."""
    contents = {"/etc": lines, "/lib": "User=packaged\nExecStart=/lora-veyra-server -c /packaged"}
    for directory, content in contents.items():
        units = Path(directory) / "systemd/system"
        run("mount", "-t", "tmpfs", "units", units)
        (units / "lora-veyra-server.service").write_text(f"[Service]\n{content}\n")


def replace_file(path: str, text: str, folder: Path) -> None:
    """Replaces the content of a system file in this namespace. The new file is in `folder`."""
    file = folder / Path(path).name
    if not file.exists():
        file.touch()
        run("mount", "--bind", file, path)
    file.write_text(text)


def write_kernel_records(folder: Path, *records: str) -> None:
    """Replaces the kernel's log with these records."""
    replace_file("/dev/kmsg", "".join(f"6,1,2,-;{record}\n" for record in records), folder)


def replace_systemd(properties: str, folder: Path) -> None:
    """Simulates systemd. The mock systemctl prints these properties of the service."""
    Path("/run/systemd/system").mkdir(parents=True, exist_ok=True)
    replace_file("/usr/bin/systemctl", f"#!/bin/sh\necho '{properties}'\n", folder)
    (folder / "systemctl").chmod(0o755)


def replace_syslog() -> socket.socket:
    """Gives this namespace a /dev of its own, and replaces the syslog daemon with a socket."""
    run("mount", "-t", "tmpfs", "dev", "/mnt")
    for node in ("null", "urandom"):
        (Path("/mnt") / node).touch()
        run("mount", "--bind", f"/dev/{node}", f"/mnt/{node}")
    run("mount", "--move", "/mnt", "/dev")
    syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    syslog.bind("/dev/log")
    syslog.settimeout(5)
    return syslog
