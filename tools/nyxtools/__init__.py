"""What the tools, the demo, the benchmarks and the soak share: a private
bus, a device root, starting a helper and waiting for its ready file, the
property bus calls, and the device's wire formulas (the request signature and
the acknowledgement entry).

Callers put tools/ on sys.path (or PYTHONPATH) and import the modules:
`rig` for processes and files, `bus` for property calls, `wire` for the
formulas. `python3 -m nyxtools --help` offers the few that shell scripts need.
"""
