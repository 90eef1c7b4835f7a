"""Runs lora-veyra-doctor in the test environment: on a healthy gateway, then with three faults.

Must be run by testbed/run.sh.
"""

import subprocess
import sys

from testbed.environment import BUILD, TestEnvironment, check_in


def examine(title: str, *options: str) -> None:
    print(f"\n{title}\n$ lora-veyra-doctor {' '.join(options)}", flush=True)
    subprocess.run([str(BUILD / "lora-veyra-doctor"), *options], check=False)


def main() -> int:
    with TestEnvironment() as testbed:
        testbed.start_ready_daemon()
        testbed.send(check_in())
        testbed.replies(1)
        examine("A healthy gateway. The daemon has just relayed a datagram.")

        testbed.cloud.close()
        testbed.cloud = testbed.make_cloud("stranger")
        testbed.start_ready_daemon()  # its connection to the old cloud must not be reused
        testbed.send(check_in())
        examine("The cloud's certificate is from an unknown CA.")

        testbed.cloud.close()
        testbed.cloud = testbed.make_cloud("cloud")
        testbed.start_broker_with_passwords("topic readwrite lora/veyra_keepalive")
        testbed.start_ready_daemon()
        examine("The broker's ACL denies publishing replies.", "--publish")

        mqtt = testbed.configuration["mqtt"]
        mqtt["Port"] = mqtt.pop("port")
        testbed.start_ready_daemon()
        examine("A key of the configuration is misspelt, so the daemon uses another broker.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
