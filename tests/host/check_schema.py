#!/usr/bin/env python3
# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

"""Compares what the configuration's schema accepts with what the program accepts: many values for each
key, and the examples in the documents."""

import json
import pathlib
import re
import subprocess
import sys

import jsonschema

ROOT = pathlib.Path(__file__).resolve().parents[2]
VALUES = [None, True, False, 0, 1, -1, 2, 1.5, 5, 6, 65534, 65535, 2**31 - 1, 2**31, 2**53 - 1, 2**53,
          "", "x", "all", "1", "1.3", "1.3+", "qt", "rsa", "auto", "serve", "127.0.0.1", "::1", [], [1],
          [32, 64], [33, 64], [32], [32, 64, 1], ["10.0.0.0/8"], ["10.0.0.1", ""], [1, "10.0.0.1"], {},
          {"perSecond": 1}, {"perSecond": 0}, {"burst": 1}, {"perSecond": 1, "burst": 2},
          {"perSecond": 1, "x": 2}, {"from": ["10.0.0.1"]}]
# What only the program knows: addresses, interfaces, networks, contents of files, names of OpenSSL's.
# There the schema may accept more.
KNOWN_TO_THE_PROGRAM = {"interface", "ipAddr", "limits.exempt", "proxyProtocol.from",
                        "ssl.CACertificate", "ssl.CAFile", "ssl.CertFile", "ssl.Certificate",
                        "ssl.CipherSuites", "ssl.Ciphers", "ssl.Groups", "ssl.KeyFile",
                        "ssl.PrivateKey"}
# Texts that name no file: the program says so when it opens the file, not of the value.
FILES = {"ssl.CAFile", "ssl.CertFile", "ssl.KeyFile"}


def refused_keys(inputhost, configuration):
    """Returns the keys of which --check-config says that they are unknown or have a bad value."""
    done = subprocess.run([inputhost, "--check-config", "--config", "-"], text=True, check=False,
                          input=json.dumps(configuration), capture_output=True, timeout=60)
    if done.returncode not in (0, 4, 6, 10):
        sys.exit(f"exit code {done.returncode}: {done.stderr}")
    return set(re.findall(r"^error: (?:unknown key )?([A-Za-z.$]+)(?:,| is )", done.stdout, re.M))


def keys_of(schema):
    """Yields (object, key)."""
    for key, rule in schema["properties"].items():
        if key != "$schema":
            yield "", key
            for inner in rule.get("properties", {}) if key != "connectionRate" else ():
                yield key, inner


def groups_of(schema):
    """Yields (object, keys): those that can be checked together."""
    for container in ("", "limits", "proxyProtocol", "ssl"):
        keys = [key for owner, key in keys_of(schema) if owner == container]
        apart = [key for key in keys if key in ("KeyFile", "PrivateKey")]
        yield container, [key for key in keys if key not in apart]
        if apart:
            yield container, apart


def check_values(inputhost, schema):
    faults = []
    for value in VALUES:
        for container, keys in groups_of(schema):
            inner = {key: value for key in keys}
            # With other algorithms, key files are judged when they are read.
            more = {"KeyAlgorithm": "rsa"} if "KeyFile" in inner else {}
            configuration = {container: inner | more} if container else inner
            refused = refused_keys(inputhost, configuration)
            for key in inner:
                name = f"{container}.{key}" if container else key
                one = {container: {key: value}} if container else {key: value}
                if container == "proxyProtocol":
                    one[container].setdefault("from", ["10.0.0.1"])
                accepts = jsonschema.Draft202012Validator(schema).is_valid(one)
                may_differ = name in KNOWN_TO_THE_PROGRAM and accepts or name in FILES and value == ""
                refuses = any(each == name or each.startswith(name + ".") for each in refused)
                if accepts == refuses and not may_differ:
                    faults.append(f"{name}: {json.dumps(value)}: the schema "
                                  f"{'accepts' if accepts else 'refuses'} it, the program does not")
    return faults


def examples():
    """Yields (document, object) of each configuration in the documents."""
    for document in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
        text = document.read_text(encoding="utf-8")
        for block in re.findall(r"^```json\n(.*?)^```", text, re.M | re.S):
            content = json.loads(block)
            if "time" not in content:  # a message
                yield document.name, content
        for key, value in re.findall(r"--set '?([A-Za-z]+)=(\{.*?\})'", text):
            if "..." not in value:
                yield document.name, {key: json.loads(value)}


def check_examples(schema):
    validator = jsonschema.Draft202012Validator(schema)
    found = list(examples())
    faults = [f"{name}: {json.dumps(content)}: {error.message}"
              for name, content in found for error in validator.iter_errors(content)]
    if len(found) < 4:
        faults.append("The documents have too few examples: are they still found?")
    return faults


def main():
    inputhost = sys.argv[1]
    schema = json.loads(subprocess.run([inputhost, "--print-schema"], check=True, capture_output=True,
                                       timeout=60).stdout)
    jsonschema.Draft202012Validator.check_schema(schema)
    faults = check_values(inputhost, schema) + check_examples(schema)
    print("\n".join(faults) or f"{len(VALUES)} values for each key, and the documents' examples: equal")
    sys.exit(bool(faults))


if __name__ == "__main__":
    main()
