#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Has Prometheus scrape inputhost with the rules of deploy/alerts.yml, and asks it what it has seen.
Argument: the build folder."""

import json
import pathlib
import socket
import sys
import tempfile
import urllib.error
import urllib.parse
import urllib.request

from harness import ROOT
from harness.hosts import Host, free_port
from harness.processes import Process, wait_until

# "job" and "instance" as the rules expect them; as often as a test needs it.
CONFIGURATION = """
global: {{scrape_interval: 200ms, scrape_timeout: 200ms, evaluation_interval: 200ms}}
rule_files: [{rules}]
scrape_configs:
  - job_name: inputhost
    static_configs: [{{targets: ["127.0.0.1:{port}"]}}]
"""


class Prometheus(Process):
    """A server of our own, in a folder of its own."""

    def __init__(self, folder, web_port):
        self.url = f"http://127.0.0.1:{free_port()}/api/v1/"
        file = pathlib.Path(folder, "prometheus.yml")
        file.write_text(CONFIGURATION.format(rules=ROOT / "deploy/alerts.yml", port=web_port),
                        encoding="utf-8")
        super().__init__(["prometheus", f"--config.file={file}",
                          f"--storage.tsdb.path={folder}/data",
                          f"--web.listen-address={urllib.parse.urlsplit(self.url).netloc}"])

    def _get(self, path):
        try:
            with urllib.request.urlopen(self.url + path, timeout=10) as answer:
                return json.load(answer)["data"]
        except (urllib.error.URLError, ConnectionError, TimeoutError):
            if self.popen.poll() is not None:
                raise RuntimeError(self.complaints()[-1000:]) from None
            return None  # it is not up yet

    def value(self, query):
        """The value of the only sample, as text; None if there is none, or are several."""
        data = self._get("query?" + urllib.parse.urlencode({"query": query}))
        result = data["result"] if data else []
        return result[0]["value"][1] if len(result) == 1 else None

    def rules(self):
        """{rule: its health}, or nothing as long as one was not evaluated."""
        data = self._get("rules")
        rules = [rule for group in data["groups"] for rule in group["rules"]] if data else []
        return {rule["name"]: rule["health"] for rule in rules}

    def help_of(self, name):
        data = self._get("metadata?" + urllib.parse.urlencode({"metric": name}))
        return data.get(name) if data else None


def web_port(host):
    line = next(line for line in host.complaints().splitlines() if "Status at http" in line)
    return int(line.rstrip("/").rpartition(":")[2])


def check(host, prometheus):
    with socket.create_connection(("127.0.0.1", host.port)) as device:
        device.sendall(b"one\ntwo\nhal")
        wait_until(lambda: prometheus.value("inputhost_messages_total") == "2", "scraped messages")
        wait_until(lambda: prometheus.value('inputhost_connections{transport="tcp"}') == "1",
                   "scraped connection")
    wait_until(lambda: prometheus.value("sum(inputhost_connections_closed_total)") == "1",
               "scraped end")
    wait_until(lambda: prometheus.value("inputhost_partial_total") == "1", "scraped partial message")
    assert prometheus.value('up{job="inputhost"}') == "1"
    kind = prometheus.help_of("inputhost_messages_total")
    assert [each["type"] for each in kind] == ["counter"], kind

    def all_evaluated():
        health = prometheus.rules()
        return health and "unknown" not in health.values()

    wait_until(all_evaluated, "evaluation of the rules")
    assert set(prometheus.rules().values()) == {"ok"}, prometheus.rules()
    # Each rule's metric is there under its name: 0 for those that are not.
    for name in ("accepting", "draining", "reading_paused", "sink_connected", "snapshot_age_seconds",
                 "config_last_reload_successful", "limit_connections", "connections_waiting",
                 "build_info", "worker_turn_seconds"):
        assert int(prometheus.value(f"count(inputhost_{name})") or 0) > 0, name


def main():
    with Host(pathlib.Path(sys.argv[1]), options=["--http", "0"]) as host, \
            tempfile.TemporaryDirectory() as folder, Prometheus(folder, web_port(host)) as prometheus:
        check(host, prometheus)
        prometheus.stop()
        host.stop()
    print("scraped, and all rules evaluated")


main()
