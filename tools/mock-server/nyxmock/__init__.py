"""The local messaging server of nyxd and the pieces it is built from.

protocol: request signatures, message wire form, acknowledgements, dynconfig.
state:    registrations, the pending queue with its page snapshots, acks, stats.
faults:   the table of injectable faults and the queue that schedules them.
server:   the HTTP(S) front end, TLS material and the command line.
"""
