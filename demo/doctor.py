"""Shows lora-veyra-doctor on a gateway of its own: healthy, then with three faults.

To be run below testbed/run.sh.
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
        examine("A healthy gateway: the daemon has just relayed a datagram.")

        testbed.cloud.close()
        testbed.cloud = testbed.make_cloud("stranger")
        testbed.send(check_in())
        examine("The cloud's certificate comes from another authority.")

        testbed.cloud.close()
        testbed.cloud = testbed.make_cloud("cloud")
        testbed.start_broker_with_passwords("topic readwrite lora/veyra_keepalive")
        testbed.start_ready_daemon()
        examine("The broker's access list denies the replies.", "--publish")

        del testbed.configuration["mqtt"]["port"]
        testbed.configuration["network"]["gatewaykey"] = "12"
        testbed.start_ready_daemon()
        examine("A setting without its partner, and one misspelt.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
