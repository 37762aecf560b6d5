"""The soak test of nyxd: the real daemon under a supervisor, the mock
messaging server and the device simulators, a seeded schedule of faults, and
the checks that run at the end (see docs/soak.md)."""
