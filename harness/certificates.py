# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Certificates for a host and for the devices that verify it."""

import copy
import json
import subprocess

from harness import ROOT


class Certificates:
    """Certificates in the folder. scripts/make-certs makes them, unless all are there and valid."""

    def __init__(self, folder):
        subprocess.run([ROOT / "scripts/make-certs", folder], check=True,
                       stdout=subprocess.DEVNULL)
        self.folder = folder
        self.authority = folder / "ca.pem"
        self.server = folder / "server.pem"
        self.server_key = folder / "server.key"

    def elliptic(self):
        """The same with a server's certificate that has an elliptic curve key."""
        others = copy.copy(self)
        others.server = self.folder / "ec.pem"
        others.server_key = self.folder / "ec.key"
        return others

    def setting(self, **more):
        """The key "ssl" of a host's configuration, with more keys in it. Devices need no
        certificate."""
        return json.dumps({"CertFile": str(self.server), "KeyFile": str(self.server_key),
                           "verifyPeer": False, **more})
