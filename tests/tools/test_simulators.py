#!/usr/bin/python3
"""What the end-to-end tests of nyxd do not drive in the device simulators:
the outbox's reading of entries and its refusals, the receiver's decoding of
payloads, and a sample application under a well-known name. They run as the
programs they are on a private bus, driven with this test's own bus calls."""

import base64
import json
import os
import shutil
import signal
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
TOOLS = os.path.join(HERE, "..", "..", "tools")
sys.path[:0] = [TOOLS, os.path.join(TOOLS, "simulators")]
import hbussim  # noqa: E402
from nyxtools import bus, rig  # noqa: E402
from nyxtools.wire import ack_entry  # noqa: E402
from gi.repository import GLib  # noqa: E402

RIG = {}


def setUpModule():
    RIG["dir"] = tempfile.mkdtemp(prefix="nyx-sim-")
    RIG["bus"] = rig.PrivateBus(RIG["dir"])
    RIG["conn"] = bus.connect(RIG["bus"].address)


def tearDownModule():
    RIG["conn"].close_sync(None)
    RIG["bus"].stop()
    shutil.rmtree(RIG["dir"], True)


def b64(data):
    return base64.b64encode(data).decode()


class SimulatorTest(unittest.TestCase):
    def start(self, program, *args):
        """Starts a simulator; returns its process, ready record and log reader."""
        log = os.path.join(RIG["dir"], "%s.%s.log" % (program, self.id()))
        env = rig.device_env(RIG["bus"].address, RIG["dir"])
        proc, ready = rig.start_helper([sys.executable, os.path.join(TOOLS, "simulators", program),
                                        *args, "--log", log], log + ".ready", env)
        self.addCleanup(rig.stop_process, proc)
        return proc, ready, lambda: [json.loads(line) for line in open(log)]

    def call(self, service, method, prop, value=None):
        return bus.call(RIG["conn"], service, method, prop, value)

    def assertCallFails(self, error, *call):
        with self.assertRaises(GLib.Error) as caught:
            self.call(*call)
        self.assertIn("GDBus.Error:" + error, caught.exception.message)

    def test_outbox_reads_entries_flags_loose_ones_and_refuses_on_request(self):
        outbox, _, log = self.start("nyx-outbox-sim")
        cases = [("m-1", 1, False), ("m-2", 103, False), ("m-3", 200, True)]
        for case in cases:
            self.call(bus.OUTBOX, "SetString", "queueMessage", ack_entry(*case))
        self.assertEqual([(r["id"], r["status"], r["retry"], r.get("problems")) for r in log()],
                         [case + (None,) for case in cases])
        self.call(bus.OUTBOX, "SetString", "queueMessage",
                  ack_entry("m-4", 1, False).replace(",", ", "))
        self.assertIn("not compact", " ".join(log()[-1]["problems"]))
        self.call(bus.OUTBOX, "SetInt", "refuseStatus", 42)
        self.assertCallFails("hbus.Error.Status: 42", bus.OUTBOX, "SetString", "queueMessage",
                             ack_entry("m-5", 1, False))
        self.assertCallFails("hbus.Error.NoSuchProperty", bus.OUTBOX, "SetInt", "queueMessage", 1)
        outbox.send_signal(signal.SIGTERM)
        self.assertEqual(outbox.wait(5), 0)

    def test_receiver_logs_deliveries_with_their_decoded_payload(self):
        _, _, log = self.start("nyx-receiver-sim", "com.example.weather")
        cases = [
            ("wisp_message", '{"id":"w1","directedId":"c-7","payload":"%s"}' % b64(b"rain"),
             {"id": "w1", "directedId": "c-7", "payload_text": "rain"}),
            ("nyx_message", '{"id":"n2","payload":"%s"}' % b64(b"\x00\xff\x10"),
             {"id": "n2", "payload_hex": "00ff10"}),
        ]
        for prop, envelope, expected in cases:
            with self.subTest(envelope):
                self.call("com.example.weather", "SetString", prop, envelope)
                record = log()[-1]
                del record["time"]
                self.assertEqual(record, dict(expected, property=prop))

    def test_sample_app_with_a_name_registers_at_start_and_is_answered_at_its_name(self):
        # This connection stands in for nyxd and records the writes it gets.
        writes = []
        daemon = hbussim.HbusObject(RIG["conn"], None)
        daemon.add(hbussim.Property("nyx_register", "s", "", on_write=lambda prop, value, sender:
                                    writes.append((sender, value))))
        daemon.export()
        self.addCleanup(daemon.unexport)
        hbussim.own_name(RIG["conn"], bus.DAEMON)
        _, ready, log = self.start("nyx-sample-app", "--name", "com.example.app",
                                   "--register", "com.start")
        self.assertEqual(ready["name"], "com.example.app")

        def written():
            while GLib.MainContext.default().iteration(False):
                pass
            return writes

        self.assertEqual(rig.wait_for(written, 5, 0.01), [(ready["unique_name"], "com.start")])
        self.call("com.example.app", "SetString", "nyx_registration", '{"registration_id":"r-1"}')
        data = '{"collapse_key":"do_not_collapse","from":"com.sender"}'
        self.call("com.example.app", "SetString", "nyx_message",
                  '{"id":"n1","directedId":"c-1","payload":"%s"}' % b64(data.encode()))
        self.assertEqual(log()[-2]["summary"], "registered with id r-1")
        record = log()[-1]
        del record["time"]
        self.assertEqual(record, {"kind": "message", "id": "n1", "directedId": "c-1",
                                  "data": json.loads(data)})


if __name__ == "__main__":
    unittest.main()
