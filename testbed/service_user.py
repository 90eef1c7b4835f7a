"""The users of an installed package, and programs that they can run."""

import shutil
from collections.abc import Iterable
from pathlib import Path

from testbed.environment import BUILD, run
from testbed.processes import text_of

SERVICE_ID = 990
GROUP_ID = 991  # a second group of the service user


def exist() -> bool:
    """Whether the namespace has more users than root."""
    return int(text_of(Path("/proc/self/uid_map")).split()[2]) > GROUP_ID


def add(folder: Path) -> None:
    """Adds the user and group lora-veyra, and the group readers, with files in the folder."""
    entries = {
        "passwd": f"lora-veyra:x:{SERVICE_ID}:{SERVICE_ID}::/:/bin/false\n",
        "group": f"lora-veyra:x:{SERVICE_ID}:\nreaders:x:{GROUP_ID}:lora-veyra\n",
    }
    for name, lines in entries.items():
        file = folder / name
        file.write_text(text_of(Path("/etc") / name) + lines)
        run("mount", "--bind", file, f"/etc/{name}")


def run_as(user: int) -> list[str]:
    """The start of a command that runs a program as this user, with all groups of the user."""
    return ["setpriv", "--reuid", str(user), "--regid", str(user), "--init-groups"]


def install(programs: Iterable[object], folder: Path) -> None:
    """Copies programs of the build directory to a folder that all users can read."""
    shutil.copytree(BUILD / "platform", folder / "platform", ignore=lambda directory, names: [
        name for name in names if not name.startswith("libzep-platform.so")])
    for program in programs:
        shutil.copy(str(program), folder)
