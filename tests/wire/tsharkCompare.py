#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the fields of all layers that frameReport --json names with what tshark says of the same capture.

usage: tsharkCompare.py FRAMEREPORT CAPTURE...
Prints the differences; the status is 1 where there are some, 77 where there is no tshark.
"""
import json
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

# layer: (protocol of tshark, {key: names of the field of tshark, one of them})
LAYERS = {
    "eth": ("eth", {"dst": "eth.dst", "src": "eth.src", "type": "eth.type eth.len"}),
    "vlan": ("vlan ieee8021ad", {
        "id": "vlan.id ieee8021ad.id", "priority": "vlan.priority ieee8021ad.priority",
        "dei": "vlan.dei ieee8021ad.dei", "type": "vlan.etype vlan.len"}),
    "llc": ("llc", {"dsap": "llc.dsap", "ssap": "llc.ssap", "control": "llc.control"}),
    "mpls": ("mpls", {"label": "mpls.label", "trafficClass": "mpls.exp", "bottom": "mpls.bottom", "ttl": "mpls.ttl"}),
    "arp": ("arp", {
        "operation": "arp.opcode", "senderMac": "arp.src.hw_mac", "senderIp": "arp.src.proto_ipv4",
        "targetMac": "arp.dst.hw_mac", "targetIp": "arp.dst.proto_ipv4"}),
    "ip": ("ip", {
        "src": "ip.src", "dst": "ip.dst", "ttl": "ip.ttl", "protocol": "ip.proto", "totalLength": "ip.len",
        "headerLength": "ip.hdr_len", "id": "ip.id", "flags": "ip.flags", "fragmentOffset": "ip.frag_offset",
        "dscp": "ip.dsfield.dscp", "ecn": "ip.dsfield.ecn", "checksum": "ip.checksum"}),
    "ip6": ("ipv6", {
        "src": "ipv6.src", "dst": "ipv6.dst", "hopLimit": "ipv6.hlim", "nextHeader": "ipv6.nxt",
        "payloadLength": "ipv6.plen", "trafficClass": "ipv6.tclass", "flowLabel": "ipv6.flow"}),
    "ip6frag": ("ipv6.fraghdr", {
        "nextHeader": "ipv6.fraghdr.nxt", "offset": "ipv6.fraghdr.offset", "more": "ipv6.fraghdr.more",
        "id": "ipv6.fraghdr.ident"}),
    "ip6opts": ("ipv6.hopopts ipv6.dstopts", {
        "nextHeader": "ipv6.hopopts.nxt ipv6.dstopts.nxt", "length": "ipv6.hopopts.len ipv6.dstopts.len"}),
    "ip6routing": ("ipv6.routing", {"nextHeader": "ipv6.routing.nxt", "length": "ipv6.routing.len"}),
    "icmp": ("icmp", {"type": "icmp.type", "code": "icmp.code", "checksum": "icmp.checksum"}),
    "icmp6": ("icmpv6", {"type": "icmpv6.type", "code": "icmpv6.code", "checksum": "icmpv6.checksum"}),
    "igmp": ("igmp", {"type": "igmp.type", "group": "igmp.maddr"}),
    "tcp": ("tcp", {
        "srcPort": "tcp.srcport", "dstPort": "tcp.dstport", "seq": "tcp.seq_raw", "ack": "tcp.ack_raw",
        "headerLength": "tcp.hdr_len", "flags": "tcp.flags", "window": "tcp.window_size_value",
        "checksum": "tcp.checksum", "urgent": "tcp.urgent_pointer"}),
    "udp": ("udp", {
        "srcPort": "udp.srcport", "dstPort": "udp.dstport", "length": "udp.length", "checksum": "udp.checksum"}),
    "sctp": ("sctp", {
        "srcPort": "sctp.srcport", "dstPort": "sctp.dstport", "tag": "sctp.verification_tag",
        "checksum": "sctp.checksum"}),
    "gre": ("gre", {
        "protocol": "gre.proto", "flags": "gre.flags_and_version", "key": "gre.key", "seq": "gre.sequence_number"}),
    "vxlan": ("vxlan", {"vni": "vxlan.vni", "flags": "vxlan.flags"}),
    "esp": ("esp", {"spi": "esp.spi", "seq": "esp.sequence"}),
    "ah": ("ah", {"nextHeader": "ah.next_header", "length": "ah.length", "spi": "ah.spi", "seq": "ah.sequence"}),
    "pim": ("pim", {"version": "pim.version", "type": "pim.type pim.code", "checksum": "pim.cksum"}),
    "vrrp": ("vrrp", {
        "version": "vrrp.version", "type": "vrrp.type", "vrid": "vrrp.virt_rtr_id", "priority": "vrrp.prio"}),
    "bfd": ("bfd", {
        "version": "bfd.version", "state": "bfd.sta", "myDiscriminator": "bfd.my_discriminator",
        "yourDiscriminator": "bfd.your_discriminator"}),
    "lldp": ("lldp", {
        "chassis": "lldp.chassis.id lldp.chassis.id.mac lldp.chassis.id.ip4 lldp.chassis.id.ip6",
        "port": "lldp.port.id lldp.port.id.mac lldp.port.id.ip4 lldp.port.id.ip6", "ttl": "lldp.time_to_live"}),
}
LAYERS["ipfix"] = ("cflow", {
    "version": "cflow.version", "length": "cflow.len", "exportTime": "cflow.exporttime", "seq": "cflow.sequence",
    "observationDomain": "cflow.od_id"})
LAYERS["pwcw"] = ("pwmcw pwethcw", {
    "flags": "pwmcw.flags", "length": "pwmcw.length", "seq": "pwmcw.sequence_number pweth.cw.sequence_number"})
LAYERS["pwach"] = ("pwach", {"version": "pwach.ver", "channelType": "pwach.channel_type"})
# layer: {key of its items: field of tshark}, all values of one frame in their order
ITEMS = {
    "tcp": {"mss": "tcp.options.mss_val", "shift": "tcp.options.wscale.shift"},
    "icmp": {"address": "icmp.router_address"},
    "icmp6": {"sourceCount": "icmpv6.mldr.mar.nb_sources", "group": "icmpv6.mldr.mar.multicast_address"},
    "igmp": {"type": "igmp.record_type"},
    "sctp": {"type": "sctp.chunk_type", "length": "sctp.chunk_length"},
    "pim": {"type": "pim.optiontype", "length": "pim.optionlength", "propagationDelay": "pim.propagation_delay",
            "overrideInterval": "pim.override_interval", "priority": "pim.dr_priority",
            "generationId": "pim.generation_id"},
    "bfd": {"type": "bfd.auth.type", "length": "bfd.auth.len", "keyId": "bfd.auth.key", "seq": "bfd.auth.seq_num"},
    "ipfix": {"id": "cflow.flowset_id", "templateId": "cflow.template_id",
              "scopeFieldCount": "cflow.template_ipfix_scope_field_count",
              "enterprise": "cflow.template_ipfix_pen_provided", "enterpriseNumber": "cflow.template_ipfix_field_pen"},
    "lldp": {"type": "lldp.tlv.type", "length": "lldp.tlv.len"},
}
SNAP = {"oui": "llc.oui", "type": "llc.type llc.pid llc.cisco_pid llc.iana_pid llc.nortel_pid llc.force10_pid"}
OF_TSHARK = {name: layer for layer, (names, _) in LAYERS.items() for name in names.split()}
# Messages may be whole below another protocol's element without being layers of the frame.
AGAIN = {"sctp", "bfd"}
SUMS = {"ip": "Ip", "udp": "Udp", "tcp": "Tcp", "sctp": "Sctp", "icmp": "Icmp", "icmp6": "Icmp6", "igmp": "Igmp",
        "pim": "Pim", "vrrp": "Vrrp", "gre": "Gre"}
SUMS = {layer: f"bad{name}{'Hdr' * (name == 'Ip')}Checksum" for layer, name in SUMS.items()}
NESTED = {"ipv6": {"ipv6.hopopts", "ipv6.dstopts", "ipv6.routing", "ipv6.fraghdr", "ah"}, "pim": {"ip", "ipv6"}}
TEXTS = {"address", "dst", "src", "senderMac", "senderIp", "targetMac", "targetIp", "group", "chassis", "port"}


def number(text):
    if text in ("True", "False"):
        return int(text == "True")
    return int(text, 0)


def values(proto, names):
    names = names.split()
    for field in proto.iter("field"):
        if field.get("name") in names and field.get("show") is not None:
            return field.get("show")
    return None


def every(proto, name):
    return [field.get("show") for field in proto.iter("field") if field.get("name") == name]


def sum_status(proto):
    return f"{proto.get('name')}.checksum.status {proto.get('name')}.cksum.status"


def of_tshark(capture):
    command = ["tshark", "-r", capture, "-T", "pdml", "-n"]
    for option in ("ip.defragment:FALSE", "ipv6.defragment:FALSE", "tcp.desegment_tcp_streams:FALSE",
                   "ip.check_checksum:TRUE", "tcp.check_checksum:TRUE", "udp.check_checksum:TRUE",
                   "sctp.checksum:CRC 32c"):
        command += ["-o", option]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    for _, packet in ElementTree.iterparse(process.stdout):
        if packet.tag != "packet":
            continue
        found = []

        def walk(element):
            for child in element:
                name = child.get("name")
                layer = OF_TSHARK.get(name) if child.tag == "proto" else None
                if layer:
                    found.append((layer, child))
                    for inner in child.iter("proto"):
                        if inner is not child and inner.get("name") in NESTED.get(name, ()):
                            found.append((OF_TSHARK[inner.get("name")], inner))
                if name == "llc" and values(child, "llc.oui") is not None:
                    found.append(("snap", child))

        walk(packet)
        # A dissector that begins again, for another chunk or part, has an empty element of its own.
        found = [(layer, p) for layer, p in found
                 if layer not in AGAIN or any(values(p, n) for n in LAYERS[layer][1].values())]
        # {code: whether tshark found it}, of the checksums that tshark looked at.
        sums = {}
        for layer, p in found:
            if layer in SUMS and values(p, sum_status(p)) in ("0", "1"):
                sums[SUMS[layer]] = sums.get(SUMS[layer], False) or values(p, sum_status(p)) == "0"
        yield [(layer, {k: values(p, n) for k, n in (SNAP if layer == "snap" else LAYERS[layer][1]).items()},
                {k: every(p, n) for k, n in ITEMS.get(layer, {}).items()}) for layer, p in found], sums
        packet.clear()


def same(key, ours, said):
    if key in ("chassis", "port"):  # shown as text, or as octets
        return str(ours) == said or str(ours).encode("latin-1", "replace").hex(":") == said or (
            str(ours).encode().hex(":") == said)
    if key in TEXTS:
        return str(ours) == said
    try:
        return ours == number(said)
    except ValueError:
        return str(ours) == said


def main():
    tool, captures = sys.argv[1], sys.argv[2:]
    if not shutil.which("tshark"):
        print("tshark is not installed")
        return 77
    frames = fields = differences = 0
    for capture in captures:
        ran = subprocess.run([tool, "--json", capture], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ours = [json.loads(line) for line in ran.stdout.decode("utf-8").splitlines()]
        for frame, (theirs, sums) in enumerate(of_tshark(capture), 1):
            if frame > len(ours):
                print(f"{capture}: tshark has more frames than {len(ours)}")
                differences += 1
                break
            frames += 1
            mine = [layer for layer in ours[frame - 1]["layers"] if layer["layer"] in {*LAYERS, "snap"}]
            said = [layer for layer, _, _ in theirs]
            if [layer["layer"] for layer in mine] != said:
                print(f"{capture} {frame}: {[layer['layer'] for layer in mine]}, tshark: {said}")
                differences += 1
                continue
            for layer, (name, its, items) in zip(mine, theirs):
                for key, value in its.items():
                    if value is None:
                        continue
                    fields += 1
                    if key not in layer or not same(key, layer[key], value):
                        print(f"{capture} {frame}: {name}.{key} is {layer.get(key)}, tshark: {value}")
                        differences += 1
                for key, told in items.items():
                    shown = [item[key] for item in layer.get("items", []) if key in item]
                    fields += len(shown)
                    # tshark stops at an item that it does not believe, and begins one that does not fit.
                    if len(told) > len(shown) + 1 or not all(map(same, [key] * len(told), shown, told)):
                        print(f"{capture} {frame}: {name}.items.{key} are {shown}, tshark: {told}")
                        differences += 1
            errors = {error.replace("partial", "bad") for error in ours[frame - 1]["errors"]}
            if any(bad != (code in errors) for code, bad in sums.items()):
                print(f"{capture} {frame}: {ours[frame - 1]['errors']}, tshark: {sums}")
                differences += 1
    print(f"{frames} frames, {fields} fields, {differences} differences")
    return 1 if differences or frames == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
