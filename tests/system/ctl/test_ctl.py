"""Tests of qmdiscoctl with a running daemon: its output, its files and its exit codes."""

import io
import json
import os
import subprocess
import xml.sax
from xml.dom import minidom
from xml.etree import ElementTree
from xml.sax import saxutils

import pytest

import harness

UNREACHABLE, USAGE = 3, 2
NONE_FOUND, LOGIC_ERROR, OPEN_FAILED, DATA_EXISTS = 11, 12, 13, 15


@pytest.fixture
def ctl(daemon, root):
    def run(*arguments, data=b"", code=0):
        done = subprocess.run([harness.program("qmdiscoctl"), "--root", str(root), *arguments],
                              input=data, capture_output=True, timeout=60, check=False)
        assert done.returncode == code, done.stderr
        if code == 0:
            assert done.stderr == b""
        return done.stdout if code == 0 else done.stderr.decode()
    return run


def test_what_is_put_comes_back(ctl, tmp_path):
    data = os.urandom((3 << 20) + 7)
    (tmp_path / "in").write_bytes(data)
    assert ctl("put", "cl5", "srv1", "--type", "qmkserver", str(tmp_path / "in")) == \
        b"stored 3145735 bytes as cl5 of srv1 (qmkserver) on master1\n"
    assert ctl("get", "cl5", "srv1") == data
    assert ctl("get", "cl5", "srv1", "-o", str(tmp_path / "out")) == \
        b"wrote 3145735 bytes to %s\n" % str(tmp_path / "out").encode()
    assert (tmp_path / "out").read_bytes() == data


def test_standard_input_and_an_empty_payload(ctl):
    ctl("put", "cl5", "srv1", "-", data=b"from a pipe")
    assert ctl("get", "cl5", "srv1") == b"from a pipe"
    ctl("put", "cl5", "srv1", "-", data=b"")
    assert ctl("get", "cl5", "srv1") == b""


def test_query_as_table_and_as_json(ctl):
    for subject in ("cl1", "cl2", "é a/b"):
        ctl("put", subject, "srv1", "-", data=b"x")
    assert ctl("query", "--subject", "cl*").decode().split("\n")[1:3] == [
        "cl1      srv1       extsrc  master1  DiscoveryService",
        "cl2      srv1       extsrc  master1  DiscoveryService"]
    found = json.loads(ctl("query", "--json", "--page-size", "1"))
    assert sorted(each["subject"] for each in found) == ["cl1", "cl2", "é%20a/b"]
    assert json.loads(ctl("query", "--json", "--type", "qmkclient")) == []


def test_a_name_that_a_query_showed_is_found(ctl):
    ctl("put", "é a/b", "100%", "-", data=b"odd")
    shown = json.loads(ctl("query", "--json"))[0]
    assert ctl("get", shown["subject"], shown["authority"]) == b"odd"


def test_exit_codes(ctl, root):
    assert "DS_NONE_FOUND" in ctl("get", "none", "srv1", code=NONE_FOUND)
    assert "DS_LOGIC_ERROR" in ctl("get", "cl%2A", "srv1", code=LOGIC_ERROR)
    assert "cannot store cl*" in ctl("put", "cl*", "srv1", "-", code=USAGE)
    assert "DS_OPEN_FAILED" in ctl("put", "s" * 300, "srv1", "-", code=OPEN_FAILED)
    ctl("put", "cl5", "srv1", "--priority", "5", "-")
    assert "DS_DATA_EXISTS" in ctl("put", "cl5", "srv1", "--priority", "4", "-", code=DATA_EXISTS)
    assert ctl("nonsense", code=USAGE).startswith("qmdiscoctl: there is no command")
    assert ctl("get", "a", "b", "-o", str(root.path / "none" / "out"), code=1).count("\n") == 1


def test_status_counts_what_was_done(ctl, root):
    ctl("put", "cl5", "srv1", "-", data=b"12345")
    ctl("get", "cl5", "srv1")

    def counted():
        service = json.loads(ctl("status", "--json"))["service"]
        counters = service["counters"]
        return counters["recordsStored"] == 1 and counters["bytesRead"] == 5 and service
    service = harness.wait_for(counted, "the counters in the status")
    assert service["role"] == "master"
    assert service["counters"]["bytesWritten"] == 5
    assert service["root"] == str(root)


def made_by_other_tools():
    """One document of items, written by several XML tools that do not know the service."""
    root = ElementTree.Element("DiscoveredItems")
    item = ElementTree.SubElement(root, "DISCOVERED", Name="/m\u00e4nner \u65e5\u672c & <co>")
    data = ElementTree.SubElement(item, "ExplorerData", Name="FileSystems")
    for name, text in (("Device", "/dev/\u00e9 & <x>"), ("Type", "ext4"), ("Options", "rw"),
                       ("Size", "4096"), ("Used", "1024"), ("ReadOnly", "1")):
        ElementTree.SubElement(data, name).text = text
    ElementTree.SubElement(item, "StatusMsg", Code="3").text = "all's \"well\""
    plain = ElementTree.tostring(root, encoding="unicode")
    dom = minidom.parseString(plain)
    for encoding in ("utf-8", "utf-16", "iso-8859-15", "us-ascii"):
        # Characters that the encoding lacks become character references.
        yield "ElementTree, " + encoding, ElementTree.tostring(root, encoding=encoding)
    yield "a byte order mark", plain.encode("utf-8-sig")
    yield "pretty-printed", dom.toprettyxml(indent="\t", newl="\r\n", encoding="utf-8")
    yield "big-endian", "\ufeff".encode("utf-16-be") + plain.encode("utf-16-be")
    out = io.StringIO()
    writer = saxutils.XMLGenerator(out, "utf-8")
    xml.sax.parseString(plain.encode(), writer)
    yield "a SAX writer", out.getvalue().encode()
    dom.documentElement.setAttribute("xmlns:other", "urn:other")
    dom.insertBefore(dom.createComment(" by hand "), dom.documentElement)
    dom.insertBefore(dom.createProcessingInstruction("target", "data"), dom.documentElement)
    device = dom.getElementsByTagName("Device")[0]
    device.replaceChild(dom.createCDATASection(device.firstChild.data), device.firstChild)
    yield "comments, instructions, namespaces, CDATA", dom.toxml(encoding="utf-8")


@pytest.mark.parametrize("document", [pytest.param(document, id=tool)
                                      for tool, document in made_by_other_tools()])
def test_documents_made_by_other_tools_are_read(ctl, document):
    ctl("put", "cl5", "srv1", "-", data=document)
    assert json.loads(ctl("items", "--json")) == {"unread": [], "items": [{
        "host": "srv1", "subject": "cl5", "name": "/m\u00e4nner \u65e5\u672c & <co>",
        "explorer": "FileSystems", "device": "/dev/\u00e9 & <x>", "type": "ext4", "options": "rw",
        "readOnly": True, "size": 4096, "used": 1024}]}


def test_refresh(ctl):
    assert ctl("refresh") == b"refresh started by the discovery service on master1\n"


def test_stop_and_the_answers_afterwards(ctl, daemon, root):
    assert ctl("stop") == b"the discovery service on master1 has stopped\n"
    assert daemon.wait() == 0
    assert ctl("query", code=UNREACHABLE).startswith("qmdiscoctl: cannot reach the discovery service")
    document = json.loads(subprocess.run(
        [harness.program("qmdiscoctl"), "--root", str(root), "--json", "status"],
        capture_output=True, timeout=60, check=False).stdout)
    assert document["reachable"] is False
