#!/usr/bin/env python3
"""Headers as their standards draw them, filled at random: headers.py >data/headers.txt, for HeadersTest.

A line has the type, what the default constructor begins with (zeros follow), the octets, and NAME=VALUE of all fields.
A layout names fields with their bits from the first one on; "whole(part:4 part:4)" is a field of several, "a=b:16" one
with two names, "-" what has no name. Of more than 64 bits the last ones count.
"""
import random, re

LAYOUTS = """
EthHdr . dst:48 src:48 typeOrLen:16
Eth8021QHdr . tagControl(priority:3 cfi:1 vlanId:12) typeOrLen:16
Eth8022LlcHdr . dsap:8 ssap:8 control:8
Eth8022SnapHdr . orgCode:24 localCode:16
MimHdr . serviceIntfEthType:16 serviceIntfTag(reserved:8 isid:24)
IpHdr . versionAndHeaderLen(version:4 headerLen:4) tos(dscp:6 ecn:2) totalLen=totalLenU16:16 id=idU16:16
    fragmentOffsetAndFlags(flags(reservedFragFlag:1 dontFrag:1 moreFrag:1) fragmentOffset:13) ttl:8 protocol:8
    checksum=checksumU16:16 src:32 dst:32
IpHdrOptionCommon . type(copied:1 optionClass:2 number:5)
IpHdrRouterAlertOption 9404 type(copied:1 optionClass:2 number:5) length:8 value:16
Ip6Hdr . versionTrafficClassAndFlowLabel(version:4 trafficClass:8 flowLabel:20) payloadLen:16 protocol:8 hopLimit:8
    src:128 dst:128
Ip6HdrOptionCommon . nextHdr:8 hdrExtLen:8
Ip6HdrRouterAlertOption 00000502 nextHdr:8 hdrExtLen:8 type:8 length:8 value:16
Ip6HdrPad1 . type:8
Ip6HdrPadN 01 type:8 length:8
UdpHdr . srcPort:16 dstPort:16 len:16 checksum=checksumU16:16
AhHdr . nextHdr:8 payloadLen:8 reserved:16 spi:32 sequenceNum:32
Icmp6Hdr . type:8 code:8 checksum=checksumU16:16
Icmp6OptionCommonHdr . type:8 len:8
Icmp6RsHdr 85 type:8 code:8 checksum=checksumU16:16 -:32
Icmp6RaHdr 86 type:8 code:8 checksum=checksumU16:16 curHopLimit:8 managed:1 otherConfig:1 -:6 routerLifetime:16
    reachableTime:32 retransTimer:32
Icmp6NsHdr 87 type:8 code:8 checksum=checksumU16:16 -:32 target:128
Icmp6NaHdr 88 type:8 code:8 checksum=checksumU16:16 router:1 solicited:1 override:1 -:29 target:128
Icmp6LinkLayerAddrOptionHdr 0101 type:8 len:8 addr:48
Icmp6PrefixInfoOptionHdr 0304 type:8 len:8 prefixLen:8 onLink:1 autonomous:1 -:6 validLifetime:32 preferredLifetime:32
    -:32 prefix:128
Icmp6MtuOptionHdr 0501 type:8 len:8 -:16 mtu:32
"""


def fields_of(layout):
    """[name, first bit, bits] in order, a whole before its parts; and how many bits there are."""
    fields, open_, at = [], [], 0
    for name, bits, closing in re.findall(r"([\w=-]+)(?:\(|:(\d+)(\)*))", layout):
        begun = [[n, at, int(bits or 0)] for n in name.split("=") if n != "-"]
        fields += begun
        if not bits:
            open_ += begun
        at += int(bits or 0)
        for _ in closing:
            whole = open_.pop()
            whole[2] = at - whole[1]
    return fields, at


def main():
    rng = random.Random(20261122)
    for line in LAYOUTS.replace("\n    ", " ").split("\n")[1:-1]:
        type_, begins, layout = line.split(" ", 2)
        fields, size = fields_of(layout)
        for _ in range(8):
            octets = rng.getrandbits(size)
            values = [f"{n}={(octets >> size - at - bits & (1 << bits) - 1) % 2**64}" for n, at, bits in fields]
            print(type_, begins, f"{octets:0{size // 4}x}", *values)


main()
