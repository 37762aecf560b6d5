"""The pieces of the rig that shell scripts use; see `python3 -m nyxtools --help`."""

import argparse
import json
import os
import sys

from . import rig


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m nyxtools",
                                     description="The private device rig for shell scripts.")
    commands = parser.add_subparsers(dest="command", required=True)
    root = commands.add_parser("device-root", help="make a device root with its provisioning files")
    root.add_argument("root")
    root.add_argument("serial")
    root.add_argument("secret")
    root.add_argument("customer")
    bus = commands.add_parser("bus", help="become a private dbus-daemon listening in DIR that "
                                          "prints its address (keeps the pid of the caller)")
    bus.add_argument("directory")
    field = commands.add_parser("ready-field", help="print one member of a ready file")
    field.add_argument("file")
    field.add_argument("member")
    args = parser.parse_args(argv)
    if args.command == "device-root":
        rig.make_device_root(args.root, args.serial, args.secret, args.customer)
    elif args.command == "bus":
        command = rig.bus_command(args.directory)
        os.execvp(command[0], command)
    else:
        with open(args.file, encoding="utf-8") as f:
            print(json.load(f)[args.member])
    return 0


sys.exit(main())
