"""Shows lora-veyra-doctor on a gateway of its own: healthy, then with three faults.

To be run below rig/run.sh.
"""

import subprocess
import sys

from rig.company import BUILD, Company, check_in


def examine(title: str, *options: str) -> None:
    print(f"\n{title}\n$ lora-veyra-doctor {' '.join(options)}", flush=True)
    subprocess.run([str(BUILD / "lora-veyra-doctor"), *options], check=False)


def main() -> int:
    with Company() as company:
        company.start_ready_daemon()
        company.send(check_in())
        company.replies(1)
        examine("A healthy gateway: the daemon has just relayed a datagram.")

        company.cloud.close()
        company.cloud = company.make_cloud("stranger")
        company.send(check_in())
        examine("The cloud's certificate comes from another authority.")

        company.cloud.close()
        company.cloud = company.make_cloud("cloud")
        company.start_broker_with_passwords("topic readwrite lora/veyra_keepalive")
        company.start_ready_daemon()
        examine("The broker's access list denies the replies.", "--publish")

        del company.configuration["mqtt"]["port"]
        company.configuration["network"]["gatewaykey"] = "12"
        company.start_ready_daemon()
        examine("A setting without its partner, and one misspelt.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
