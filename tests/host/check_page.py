#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Opens the page of inputhost in a browser: it shows what devices have sent, sorts, searches and pages,
and what hostile texts say does not run. Argument: the build folder."""

import json
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request

from harness import ROOT
from harness.browser import ENTER, TAB, Browser
from harness.devices import Devices
from harness.hosts import Host
from harness.processes import wait_until

CONNECTIONS = 300
MESSAGES = 5
LONGEST = 5000
# In a certificate, at most 64 characters.
HOSTILE_NAME = "<img src=x onerror=document.title=1>\u009b2J\u202etxt\x7f"
# The host escapes what separates names, and DEL, before the page escapes the rest.
SHOWN_NAME = "\\<img src=x onerror=document.title=1\\>\\u009b2J\\u202etxt\\7F"

FACTS = """
    const texts = [...document.querySelectorAll(`#${arguments[0]} > *`)].map(each => each.textContent);
    return Object.fromEntries(texts.flatMap((text, n) => n % 2 ? [[texts[n - 1], text]] : []));
"""
ROWS = """
    return [...document.querySelectorAll(`#${arguments[0]} tbody tr`)]
        .map(row => [...row.cells].map(cell => cell.textContent));
"""


def page_of(host):
    return re.search(r"Status at (http://127\.0\.0\.1:\d+/)", host.complaints())[1]


def facts(browser, name):
    return browser.run(FACTS, name)


def rows(browser):
    return browser.run(ROWS, "connections")


def text(browser, name):
    return browser.run("return document.getElementById(arguments[0]).textContent", name)


def click(browser, selector):
    browser.run("document.querySelector(arguments[0]).click()", selector)


def number(shown):
    return int(shown.replace(",", ""))


def same(one, other):
    assert one == other, (one, other)


def check_served_as_written(host):
    with urllib.request.urlopen(page_of(host), timeout=60) as answer:
        same(answer.read(), (ROOT / "host/web/page.html").read_bytes())


def check_figures(browser, messages, message_bytes, connections):
    wait_until(lambda: number(facts(browser, "received").get("Messages", "0")) == messages, "messages")
    same(number(facts(browser, "received")["Bytes of messages"]), message_bytes)
    wait_until(lambda: text(browser, "range") == f"1 to 50 of {connections}", "all connections")
    plot = "return document.querySelector('#plot-connections strong').textContent"
    wait_until(lambda: browser.run(plot) == str(connections), "plotted connections")
    wait_until(lambda: text(browser, "state") == "ready", "state")


def check_sorting(browser, longest):
    """longest: the device that has sent most."""
    click(browser, "[data-sort=bytes]")
    click(browser, "[data-sort=bytes]")
    wait_until(lambda: rows(browser)[0][0] == longest, "the largest first")
    same(number(rows(browser)[0][4]), LONGEST)
    shown = [number(row[4]) for row in rows(browser)]
    same(shown, sorted(shown, reverse=True))
    same(browser.run("return [...document.querySelectorAll('[aria-sort]')].map("
                     "each => [each.textContent, each.ariaSort])"), [["Bytes", "descending"]])


def check_keyboard(browser):
    focused = "return document.activeElement.dataset.sort || ''"
    browser.run("document.getElementById('search').focus()")
    for _ in range(10):
        browser.press(TAB)
        if browser.run(focused) == "device":
            break
    same(browser.run(focused), "device")
    browser.press(ENTER)
    sort = "return document.querySelector('[data-sort=device]').parentElement.ariaSort"
    same(browser.run(sort), "ascending")
    wait_until(lambda: rows(browser)[0][0].startswith("127.0.0.1:"), "rows by device")
    same(browser.run(focused), "device")


def check_paging(browser, connections):
    def numbers():
        return [int(row[1]) for row in rows(browser)]

    click(browser, "[data-sort=number]")
    wait_until(lambda: numbers() == sorted(numbers()), "rows by number")
    seen = []
    for first in range(1, connections + 1, 50):
        last = min(first + 49, connections)
        wait_until(lambda: text(browser, "range") == f"{first} to {last} of {connections}", "next page")
        seen += numbers()
        click(browser, "#next")
    same(len(set(seen)), connections)
    same(seen, sorted(seen))
    same(text(browser, "range"), f"{first} to {last} of {connections}")  # behind the last one is none


def check_search(browser, host):
    wanted = "127.77.0.3:"
    path = "status.json?" + urllib.parse.urlencode({"search": wanted, "limit": 0})
    with urllib.request.urlopen(page_of(host) + path, timeout=60) as answer:
        found = json.load(answer)["connections"]
    assert 0 < found["matching"] <= 50 < found["total"], found
    browser.run("const box = document.getElementById('search'); box.value = arguments[0];"
                "box.dispatchEvent(new Event('input'))", wanted)
    shown = f"1 to {found['matching']} of {found['matching']} found, {found['total']} in all"
    wait_until(lambda: text(browser, "range") == shown, "what was searched")
    wait_until(lambda: text(browser, "spoken") == shown, "announcement")
    assert all(row[0].startswith(wanted) for row in rows(browser)), rows(browser)


def check_narrow_and_dark(browser):
    browser.resize(360, 800)
    browser.prefer("dark")
    width, needed = browser.run("return [innerWidth, document.documentElement.scrollWidth]")
    same(width, 360)
    assert needed <= width, needed  # less beside a scroll bar
    same(browser.run("return getComputedStyle(document.body).backgroundColor"), "rgb(20, 23, 27)")
    browser.prefer("light")
    same(browser.run("return getComputedStyle(document.body).backgroundColor"), "rgb(246, 247, 249)")
    browser.resize(1280, 900)


def check_hidden(browser):
    """A page that is not seen does not ask; seen again, it does at once."""
    browser.run("""
        window.asks = 0;
        window.left = new Set();
        const {fetch, setTimeout, clearTimeout} = window;
        window.fetch = (...all) => { ++asks; return fetch(...all); };
        window.setTimeout = (...all) => { const id = setTimeout(...all); left.add(id); return id; };
        window.clearTimeout = id => { left.delete(id); clearTimeout(id); };
        window.setHidden = value => {
            Object.defineProperty(document, "hidden", {value, configurable: true});
            document.dispatchEvent(new Event("visibilitychange"));
        };""")
    wait_until(lambda: browser.run("return asks >= 2 && left.size > 0"), "another poll")
    # By hand: the set has timers that have run, too.
    same(browser.run("""
        left.clear();
        setHidden(false); // asks; the timer is made when the answers are there
        setHidden(true);
        window.before = asks;
        return left.size"""), 0)
    wait_until(lambda: browser.run("return document.getElementById('away').textContent === ''"), "answers")
    browser.run("setHidden(true)")
    same(browser.run("const before = asks; setHidden(true); return asks - before"), 0)
    same(browser.run("const before = asks; setHidden(false); return asks - before"), 2)


def check_nothing_went_wrong(browser, address):
    """In the browser's logs since they were taken last."""
    same(browser.log("browser"), [])
    events = [json.loads(entry["message"])["message"] for entry in browser.log("performance")]
    # The browser's own first tab loads parts of the browser: only requests of our page count.
    asked = [event["params"]["request"]["url"] for event in events
             if event["method"] == "Network.requestWillBeSent"
             and not event["params"]["documentURL"].startswith("chrome:")]
    foreign = [url for url in asked if not url.startswith((address, "data:"))]
    same(foreign, [])
    assert any(url.startswith(address + "history.json") for url in asked), asked


def send(port, line):
    """A device that stays. Returns it."""
    device = socket.create_connection(("127.0.0.1", port))
    device.sendall(line.encode())
    return device


def check_traffic(build, browser):
    with Host(build, options=["--http", "0"]) as host, \
            Devices(host, "--connections", CONNECTIONS, "--messages", MESSAGES, "--close", "stay") as devices:
        check_served_as_written(host)
        address = page_of(host)
        hostile = HOSTILE_NAME + "\n"
        own = [send(host.port, "x" * (LONGEST - 1) + "\n"), send(host.port, hostile)]
        longest = "127.0.0.1:{}".format(own[0].getsockname()[1])
        messages = CONNECTIONS * MESSAGES + len(own)
        wait_until(lambda: host.counted()[0] == messages, "messages at the host")
        browser.open(address)
        check_figures(browser, messages, host.counted()[1], CONNECTIONS + len(own))
        check_sorting(browser, longest)
        check_keyboard(browser)
        check_paging(browser, CONNECTIONS + len(own))
        check_search(browser, host)
        check_narrow_and_dark(browser)
        check_nothing_went_wrong(browser, address)
        check_hidden(browser)
        sent = host.counted()
        devices.stop()
        same(sent, (devices.sent()[0] + len(own),
                    devices.sent()[1] + LONGEST - 1 + len(hostile.encode()) - 1))
        for device in own:
            device.close()
        host.stop()
        wait_until(lambda: text(browser, "away").startswith("The host cannot be reached."), "alarm")
        browser.log("browser")  # tells of that, too
        browser.log("performance")


def make_certificate(folder):
    command = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "90", "-utf8",
               "-subj", "/CN=" + HOSTILE_NAME, "-keyout", "key.pem", "-out", "certificate.pem"]
    subprocess.run(command, cwd=folder, check=True, capture_output=True)
    return json.dumps({"verifyPeer": False, "CertFile": f"{folder}/certificate.pem",
                       "KeyFile": f"{folder}/key.pem"})


def check_hostile_texts(build, browser):
    with tempfile.TemporaryDirectory() as folder, \
            Host(build, settings={"ssl": make_certificate(folder)}, options=["--http", "0"]) as host:
        address = page_of(host)
        browser.open(address)
        shown = "return document.querySelector('#certificates tbody th')?.textContent"
        wait_until(lambda: browser.run(shown), "certificate")
        same(browser.run(shown), SHOWN_NAME)
        same(browser.run("return document.title"), "inputhost")
        same(browser.run("return document.images.length"), 0)
        check_nothing_went_wrong(browser, address)
        host.stop()


def main():
    build = pathlib.Path(sys.argv[1])
    with Browser() as browser:
        browser.resize(1280, 900)
        check_traffic(build, browser)
        check_hostile_texts(build, browser)
    print(f"{CONNECTIONS + 2} connections as they were, and nothing ran that should not")


main()
