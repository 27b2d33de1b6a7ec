#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes frames.pcap with scapy (Debian: python3-scapy): layers of each kind, whole, cut and with lengths that lie.

usage: makeFrames.py FILE
"""
import random
import struct
import sys
from scapy.all import *
from scapy.contrib.igmp import IGMP
from scapy.contrib.igmpv3 import IGMPv3, IGMPv3gr, IGMPv3mq, IGMPv3mr
from scapy.contrib.mpls import MPLS
load_contrib('geneve')
random.seed(1)  # the same frames each time
E = Ether(dst='02:00:00:00:00:02', src='02:00:00:00:00:01')
I = IP(src='192.0.2.1', dst='192.0.2.2')
I6 = IPv6(src='2001:db8::1', dst='2001:db8::2')
U = UDP(sport=40000, dport=9) / b'hello'
f = []

def add(p, cut=None):
    b = bytes(p)
    f.append((b if cut is None else b[:cut], len(b)))
add(E / I / U)
add(E / I6 / U)
for c in range(1, 60):
    add(E / I / U, c)
for c in range(15, 90):
    add(E / I6 / TCP(sport=1, dport=2, options=[('MSS', 1460), ('WScale', 3), ('Timestamp', (1, 2))]) / b'abc', c)
for p in fragment(E / I / UDP(sport=40000, dport=9) / (b'x' * 3000), fragsize=1000):
    add(p)
for p in fragment6(I6 / IPv6ExtHdrFragment() / UDP(sport=40000, dport=9) / (b'x' * 3000), 1000):
    add(E / p)
for fl in range(0, 256, 7):
    add(E / I / TCP(sport=30000, dport=30001, flags=fl, urgptr=5, seq=7, ack=9) / b'zz')
add(E / I / TCP(sport=1, dport=30001, reserved=7))
add(E / I / TCP(dataofs=4, sport=30000, dport=30001))
add(E / I / TCP(dataofs=15, sport=30000, dport=30001))
add(E / I / TCP(dataofs=0))
for l in (0, 7, 8, 9, 13, 14, 1000):
    add(E / I / UDP(sport=40000, dport=9, len=l) / b'hello')
add(E / I6 / UDP(sport=40000, dport=9, len=l) / b'hello')
for l in (0, 5, 19, 20, 28, 33, 34, 1000):
    add(E / IP(src='192.0.2.1', dst='192.0.2.2', len=l) / U)
for l in (0, 1, 4, 6, 15):
    add(E / IP(src='192.0.2.1', dst='192.0.2.2', ihl=l) / U)
for v in range(16):
    if v != 6:
        add(E / IP(src='192.0.2.1', dst='192.0.2.2', version=v) / U)
    add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', version=v) / U)
add(E / IP(src='192.0.2.1', dst='192.0.2.2', chksum=1) / U)
add(E / IP(src='192.0.2.1', dst='192.0.2.2', options=[IPOption_Router_Alert(),
    IPOption_RR(routers=['192.0.2.9'] * 2)], flags=7, tos=185) / U)
for l in (0, 4, 12, 13, 14, 1000):
    add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', plen=l) / U)
for t in list(range(0, 19)) + [40, 42, 43]:
    add(E / I / ICMP(type=t, id=3, seq=4, ts_ori=1, ts_rx=2, ts_tx=3) / bytes(I / U))
for t in (3, 4, 5, 11, 12):
    add(E / I / ICMP(type=t, code=1) / bytes(I / U)[:28])
for t in range(0, 160):
    add(E / I6 / (ICMPv6Unknown(type=t) / bytes(I6 / U)))
for cls in (ICMPv6ND_NS, ICMPv6ND_NA, ICMPv6ND_RS, ICMPv6ND_RA):
    add(E / I6 / cls() / ICMPv6NDOptSrcLLAddr(lladdr='02:00:00:00:00:01') / ICMPv6NDOptPrefixInfo()
        / ICMPv6NDOptMTU())
add(E / I6 / ICMPv6ND_Redirect() / ICMPv6NDOptRedirectedHdr(pkt=I6 / U))
add(E / I6 / IPv6ExtHdrHopByHop(options=[RouterAlert()])
    / ICMPv6MLReport2(records=[ICMPv6MLDMultAddrRec(dst='ff02::5')]))
add(E / I6 / ICMPv6MLQuery2())
add(E / I6 / ICMPv6MLQuery())
add(E / I6 / ICMPv6MLDone())
add(E / I6 / IPv6ExtHdrHopByHop(options=[RouterAlert()]) / IPv6ExtHdrRouting(addresses=['2001:db8::3'])
    / IPv6ExtHdrDestOpt(options=[PadN(optdata=b'ab')]) / U)
add(E / I6 / IPv6ExtHdrSegmentRouting(addresses=['2001:db8::3', '2001:db8::4']) / U)
add(E / I6 / IPv6ExtHdrFragment(offset=0, m=1, id=77) / U)
add(E / I6 / IPv6ExtHdrFragment(offset=3, m=0, id=77) / U)
add(E / I6 / IPv6ExtHdrFragment(offset=3, m=0, id=77, nh=0) / U)
add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=59) / b'junk')
add(E / I6 / IPv6ExtHdrHopByHop(len=200) / U)
add(E / I6 / IPv6ExtHdrRouting(len=200) / U)
add(E / I / IP(src='198.51.100.1', dst='198.51.100.2') / U)
add(E / I / I6 / U)
add(E / I6 / I / U)
add(E / I6 / I6 / U)
add(E / I / GRE() / I / U)
add(E / I / GRE(key_present=1, key=99) / I6 / U)
add(E / I / GRE(chksum_present=1, key_present=1, seqnum_present=1, key=5, seqence_number=6) / I / U)
add(E / I / GRE(proto=25944) / E / I / U)
add(E / I6 / GRE() / I / U)
add(E / I / GRE(proto=34887) / MPLS(label=16, s=1) / I / U)
add(E / I / GRE(version=2) / I / U)
add(E / I / GRE(version=1, proto=34827, key_present=1, key=9, seqnum_present=1) / PPP() / I / U)
add(E / I / GRE(proto=34827) / PPP() / I / U)
add(E / I / GRE(proto=35006, seqnum_present=1, seqence_number=4) / b'\x10\x01\x02\x03\x00\x00\x00\t' / E / I / U)
add(E / I / GRE(proto=35006) / E / I / U)
add(E / I / GRE(proto=8939, seqnum_present=1) / b' \x01\x02\x03\x00\x00\x00\t\x00\x00\x00\x00' / E / I / U)
add(E / I / GRE(proto=8939, seqnum_present=1) / (b' \x01\x02\x03\x00\x00\x00\t\x00\x00\x00\x01' + b'\x00' * 8)
    / E / I / U)
add(E / I / GRE(proto=35020))
add(E / I / GRE(proto=2054) / ARP())
add(E / I / GRE(proto=33024) / Dot1Q(vlan=3) / I / U)
V = lambda **k: UDP(sport=50000, dport=4789) / VXLAN(**k)
add(E / I / V(vni=5, flags=8) / E / I / U)
add(E / I6 / V(vni=5, flags=0) / E / I6 / U)
add(E / I / UDP(sport=4789, dport=50000) / VXLAN(vni=3, gpflags=128, gpid=7, flags=136) / E / I / U)
add(E / I / UDP(sport=50000, dport=6081) / GENEVE(vni=7) / E / I / U)
add(E / I / UDP(sport=50000, dport=6081) / GENEVE(vni=7, proto=2048) / I / U)
K = Ether(dst='00:00:5e:00:53:02', src='00:00:5e:00:53:01')
for bot in (I / U, I6 / U, bytes(K / I / U), b'\x00' * 4 + bytes(K / I / U), b'\x10\x00\x00!' + bytes(I / U),
    b'\xff\x00\x01' + b'\x00' * 30, b'\x10\x00\x00\x07' + b' \xc0\x03\x18' + b'\x00\x00\x00\x01' * 5):
    add(Ether(dst=E.dst, src=E.src, type=34887) / MPLS(label=100, cos=3, s=0, ttl=9) / MPLS(label=200, s=1) / bot)
add(Ether(dst=E.dst, src=E.src, type=34888) / MPLS(label=100, s=1) / I / U)
for lab in (0, 1, 2, 3, 7):
    add(Ether(dst=E.dst, src=E.src, type=34887) / MPLS(label=lab, s=1) / I / U)
add(Ether(dst=E.dst, src=E.src, type=34887) / MPLS(label=13, s=1) / (b'\x10\x00\x00!' + bytes(I / U)))
add(E / Dot1Q(vlan=5, prio=3, id=1) / Dot1Q(vlan=6) / I / U)
add(Ether(dst=E.dst, src=E.src, type=34984) / Dot1Q(vlan=7) / Dot1Q(vlan=8) / I6 / U)
add(Ether(dst=E.dst, src=E.src, type=37120) / Dot1Q(vlan=7) / I / U)
add(Ether(dst=E.dst, src=E.src, type=37376) / Dot1Q(vlan=7) / I / U)
D = Dot3(dst='01:80:c2:00:00:00', src=E.src)
add(D / LLC(dsap=66, ssap=66, ctrl=3) / STP())
add(D / LLC(dsap=170, ssap=170, ctrl=3) / SNAP(OUI=0, code=2048) / I / U)
add(D / LLC(dsap=170, ssap=170, ctrl=3) / SNAP(OUI=248, code=34525) / I6 / U)
add(D / LLC(dsap=170, ssap=170, ctrl=3) / SNAP(OUI=12, code=8192) / b'cdp')
add(D / LLC(dsap=170, ssap=170, ctrl=3) / SNAP(OUI=32962, code=7) / bytes(E / I / U))
add(D / LLC(dsap=170, ssap=170, ctrl=3) / SNAP(OUI=32962, code=1) / (b'' + bytes(E / I / U)))
add(D / LLC(dsap=6, ssap=6, ctrl=3) / I / U)
add(D / (b'\xff\xff' + b'\x00' * 30))
add(D / (b'\x04\x04\x01\x05' + b'\x00' * 20))
add(D / (b'\xf0\xf0\x00\x05' + b'\x00' * 20))
add(D / (b'BB\x7f' + b'\x00' * 20))
add(D / (b'\xe0\xe0\x03' + b'\x00' * 40))
for ln in (0, 1, 2, 3, 10, 60, 1400, 1500, 1501, 1535):
    f.append((bytes.fromhex('0180c2000000020000000001') + struct.pack('>H', ln) + b'BB\x03' + b'\x00' * 40, 57))
f.append((bytes.fromhex('0180c2000000020000000001') + bytes.fromhex('8100000a') + struct.pack('>H',
    30) + b'\xaa\xaa\x03\x00\x00\x00\x08\x00' + bytes(I / U) + b'\x00' * 10, 100))
for op in (1, 2, 3, 4, 8):
    add(E / ARP(op=op, hwsrc=E.src, hwdst=E.dst, psrc='192.0.2.1', pdst='192.0.2.2') / (b'\x00' * 18))
add(Ether(dst=E.dst, src=E.src, type=32821) / ARP(op=3))
add(E / ARP(hwlen=8) / (b'\x00' * 20))
add(E / ARP(hwtype=6))
add(E / ARP(ptype=2304))
add(E / ARP(hwlen=200, plen=200))
add(E / ARP(plen=16) / (b'\x00' * 40))
for c in (14, 20, 22, 30, 41):
    add(E / ARP(), c)
for t in (17, 18, 19, 22, 23, 30, 31, 48, 153):
    add(E / I / IGMP(type=t, gaddr='224.1.2.3', mrcode=10))
add(E / I / IGMPv3(type=17) / IGMPv3mq(gaddr='224.1.1.1', srcaddrs=['192.0.2.7']))
add(E / I / IGMPv3(type=34) / IGMPv3mr(records=[IGMPv3gr(maddr='224.9.9.9', srcaddrs=['192.0.2.8'])]))
add(E / I / IGMPv3(type=34) / IGMPv3mr(records=[IGMPv3gr(maddr='224.9.9.9'), IGMPv3gr(maddr='224.9.9.8')]))
add(E / I / IGMPv3(type=34) / IGMPv3mr(records=[]))
add(E / I / SCTP(sport=30000, dport=30001, tag=9) / SCTPChunkInit())
add(E / I6 / SCTP(sport=30000, dport=30001, tag=9) / SCTPChunkData(data=b'abcd'))
add(E / I / ESP(spi=7, seq=8, data=b'x' * 20))
add(E / I6 / ESP(spi=7, seq=8, data=b'x' * 20))
add(E / I / AH(spi=3, seq=4, icv=b'\x00' * 12, nh=17, payloadlen=4) / U)
add(E / I6 / AH(spi=3, seq=4, icv=b'\x00' * 12, nh=17, payloadlen=4) / U)
add(E / I / AH(spi=3, seq=4, icv=b'\x00' * 12, nh=17, payloadlen=200) / U)
add(E / I / UDP(sport=4500, dport=4500) / ESP(spi=9, seq=1, data=b'y' * 20))
add(E / I / UDP(sport=4500, dport=4500) / b'\xff')
add(E / I / UDP(sport=4500, dport=4500) / (b'\x00' * 30))
for t in range(16):
    add(E / IP(src='192.0.2.1', dst='224.0.0.13', proto=103) / (bytes([32 | t, 0, 0, 0]) + b'\x00' * 24))
reg = bytes([33, 0, 222, 255, 0, 0, 0, 0])
add(E / IP(src='192.0.2.1', dst='192.0.2.13', proto=103) / (reg + bytes(I / U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.13', proto=103) / (bytes([33, 0, 158, 255, 64, 0, 0,
    0]) + bytes(IP(src='192.0.2.1', dst='192.0.2.2', proto=103))))
add(E / IPv6(src='2001:db8::1', dst='ff02::d', nh=103) / (bytes([33, 0, 0, 0, 0, 0, 0, 0]) + bytes(I6 / U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.13', proto=103) / b'\x10\x00\x00\x00\x00\x00\x00\x00')
for v in (2, 3, 4, 1):
    add(E / IP(src='192.0.2.1', dst='224.0.0.18', ttl=255, proto=112) / (bytes([v << 4 | 1, 5, 100, 1, 0, 1, 0,
        0]) + b'\xc0\x00\x02\x05' + b'\x00' * 8))
add(E / IPv6(src='fe80::1', dst='ff02::12', hlim=255, nh=112) / (bytes([v << 4 | 1, 5, 100, 1, 0, 1, 0,
    0]) + b'\xfe\x80' + b'\x00' * 14))
for port in (3784, 4784, 6784, 7784, 3785):
    add(E / I / UDP(sport=49152, dport=port) / (bytes([32, 192, 3,
        24]) + b'\x00\x00\x00\x01\x00\x00\x00\x02' + b'\x00\x00\x03\xe8' * 3))
add(E / I6 / UDP(sport=49152, dport=port) / (bytes([32, 192, 3,
    24]) + b'\x00\x00\x00\x01\x00\x00\x00\x02' + b'\x00\x00\x03\xe8' * 3))
add(E / I / UDP(sport=49152, dport=3784) / (bytes([32, 196, 3,
    33]) + b'\x00\x00\x00\x01\x00\x00\x00\x02' + b'\x00\x00\x03\xe8' * 3 + b'\x01\t\x01secret'))
add(E / I / UDP(sport=49152, dport=3784) / (bytes([0, 192, 3,
    24]) + b'\x00\x00\x00\x01\x00\x00\x00\x02' + b'\x00\x00\x03\xe8' * 3))
add(E / I / UDP(sport=49152, dport=3784) / (bytes([32, 192, 3,
    99]) + b'\x00\x00\x00\x01\x00\x00\x00\x02' + b'\x00\x00\x03\xe8' * 3))
add(E / I / UDP(sport=49152, dport=3784) / b' \xc0\x03')
L = Ether(dst='01:80:c2:00:00:0e', src=E.src, type=35020)
tlv = lambda t, d: struct.pack('>H', t << 9 | len(d)) + d
for ch in (b'\x04\x02\x00\x00\x00\x00\x01', b'\x05\x01\xc0\x00\x02\x01', b'\x07host', b'\x01comp', b'\x02alias',
    b'\x03port', b'\x06ifname', b'\x05\x02' + bytes(16), b'\x07h\xc3\xbc', b'\x04ab', b'\x00x', b'\x08y'):
    for po in (b'\x05eth0', b'\x03\x02\x00\x00\x00\x00\x02', b'\x07loc', b'\x04\x01\xc0\x00\x02\x03',
        b'\x01ifalias', b'\x02comp'):
        add(L / (tlv(1, ch) + tlv(2, po) + tlv(3, b'\x00x') + tlv(5, b'sys') + tlv(127,
            b'\x00\x80\xc2\x01\x00\x01') + tlv(0, b'') + b'\x00' * 20))
add(L / (tlv(1, b'\x07a') + tlv(2, b'\x05b')))
add(L / (tlv(2, b'\x05b') + tlv(1, b'\x07a') + tlv(3, b'\x00\x01') + tlv(0, b'')))
add(L / b'\x02\xff')
add(Ether(dst=E.dst, src=E.src, type=34916) / PPPoE(sessionid=3) / PPP(proto=33) / I / U)
add(Ether(dst=E.dst, src=E.src, type=34916) / PPPoE(sessionid=3) / PPP(proto=87) / I6 / U)
add(E / I / UDP(sport=1701, dport=1701) / bytes.fromhex('400200160001000100'))
add(Ether(dst=E.dst, src=E.src, type=35047) / (b'\x00\x00\x00\x05' + bytes(E / I / U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=97) / (b'0\x00' + bytes(E / I / U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=137) / MPLS(label=9, s=1) / I / U)
add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=143) / E / I / U)
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=58) / ICMPv6EchoRequest())
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=0) / (b'\x11\x00\x01\x04\x00\x00\x00\x00' + bytes(U)))
add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=1) / ICMP())
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=44) / (b'\x11\x00\x00\x00\x00\x00\x00\x00' + bytes(U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=60) / (b'\x11\x00\x01\x04\x00\x00\x00\x00' + bytes(U)))
add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=136) / U)
add(E / I / UDP(sport=50000, dport=8472) / VXLAN(vni=3) / E / I / U)
add(E / I / UDP(sport=50000, dport=6635) / MPLS(label=9, s=1) / I / U)
# What a comparison of random frames with an analyser found, one of each kind.
S = lambda ptr, n: bytes([131, 3 + 4 * n, ptr]) + socket.inet_aton('198.51.100.1') * n + bytes(-(3 + 4 * n) % 4)
for ptr, n in ((4, 1), (8, 2), (5, 2), (12, 2)):
    add(E / IP(src='192.0.2.1', dst='192.0.2.2', options=IPOption(S(ptr, n))) / U)
R6 = lambda t, n, last, left=1: bytes([17, 2 * n, t, left, last, 0, 0, 0]) + socket.inet_pton(10, '2001:db8::7') * n
for t in (0, 2, 3, 4):
    for n in (0, 1, 2):
        for last in (0, 1):
            add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=43) / (R6(t, n, last) + bytes(U)))
for o in (b'\x05\x02\x00\x00\x01\x00', b'\x02\x82\x00\x00\x00\x00', b'\x01\x05\x00\x00\x00\x00',
    b'\x29\x07\x00\x00\x00\x00', b'\x00\x00\x00\x00\x00\x01', b'\xc2\x04\x00\x01\x00\x00'):
    add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=0) / (b'\x11\x00' + o + bytes(U)))
add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=140) / (b'\x11\x00\x00\x00\x00\x00\x00\x00' + bytes(U)))
for nh in (6, 0, 58, 43):
    add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=nh, plen=0) / bytes(TCP(sport=30000, dport=30001)))
T = lambda t, b: add(Ether(dst=E.dst, src=E.src, type=t) / b)
for t, b in ((0x892f, bytes(4)), (0x8926, bytes(4)), (0x893f, bytes(6)), (0xf1c1, bytes(4)), (0x88e5, bytes(6))):
    T(t, b + b'\x08\x00' + bytes(I / U) + bytes(16))
T(0x88e5, b'\x0c' + bytes(60))
T(0x894f, b'\x0f\xc6\x01\x03' + bytes(20) + bytes(E / I / U))
T(0x22f3, bytes(6) + bytes(E / I / U))
T(0x8870, b'\xaa\xaa\x03\x00\x00\x00\x08\x00' + bytes(I / U))
T(0x0800, b'\x65' + bytes(I / U)[1:])
T(0x8847, b'\x00\x00\xe1\x40' + bytes(I / U))
T(0x88a8, b'\x00\x05\x00\x20' + b'\x42\x42\x03' + bytes(40))
add(Ether(dst='01:00:0c:00:00:00', src=E.src, type=90) / (b'\xaa\xaa\x03' + bytes(9) + bytes(E / I / U)))
for p in (b'\x00\x4b\x42\x42\x03' + bytes(9), b'\x00\x31\x00\x01' + bytes(E / I / U),
    b'\xff\x03\x00\x21' + bytes(I / U)):
    T(0x8864, b'\x11\x01\x00\x01' + struct.pack('>H', len(p)) + p)
for c in (b'\x13', b'\x00\x00', b'\x01\x01', b'\x7f'):
    add(D / (b'\xaa\xaa' + c + b'\x00\x00\x00\x08\x00' + bytes(I / U)))
    add(D / (b'\x06\x06' + c + bytes(I / U)))
G = lambda dport, b, sport=40000: add(E / I / UDP(sport=sport, dport=dport) / b)
for fl, h in ((0x30, b''), (0x32, bytes(4)), (0x34, b'\x00\x00\x00\x85\x01\x00\x01\x00')):
    G(2152, bytes([fl, 255]) + struct.pack('>H', len(h + bytes(I / U))) + b'\x00\x00\x00\x01' + h + bytes(I / U))
for a in (b'', bytes(8), b'\x00\x01' + bytes(11)):
    G(3544, a + bytes(I6 / U))
for fl, h in ((2, bytes(4)), (0x4002, bytes(6)), (0x0a02, bytes(10)), (3, bytes(4))):
    G(1701, struct.pack('>H', fl) + h + b'\x00\x21' + bytes(I / U))
G(4341, bytes(8) + bytes(I / U))
G(4754, bytes(GRE() / I / U))
G(4789, bytes(VXLAN(vni=3) / E / I / U), 53)
for n in (1, 3, 4, 5, 6):
    G(4790, b'\x0c\x00\x00' + bytes([n]) + bytes(4) + bytes(E / I / U))
add(E / I / GRE(proto=0x6400, key_present=1) / E / I / U)
add(E / I / GRE(version=1, proto=2048, key_present=1, flags=16) / I / U)
add(E / I / GRE(proto=35006, seqnum_present=1) / (b'\x30' + bytes(7) + bytes(E / I / U)))
for t in (0, 3, 8):
    add(E / I / IGMP(type=20, mrcode=t, gaddr='16.0.0.0'))
for p, u in ((17, bytes(U)), (6, bytes(TCP(dport=9))), (1, bytes(ICMP())), (58, bytes(ICMPv6EchoRequest())),
    (2, bytes(IGMPv3(type=34) / IGMPv3mr(records=[IGMPv3gr(maddr='224.9.9.9', srcaddrs=['192.0.2.8'])]))),
    (47, bytes(GRE(chksum_present=1, key_present=1, key=5) / I)), (132, bytes(SCTP(sport=30000, dport=30001))),
    (51, bytes(AH(nh=17, payloadlen=4, icv=bytes(12)) / U)), (103, bytes([32, 0, 0xdf, 0xff])), (50, bytes(12)),
    (112, bytes([0x21, 5, 100, 1, 0, 1, 0, 0]) + bytes(12)), (41, bytes(I6 / U)), (44, bytes([17]) + bytes(7)),
    (43, bytes([17]) + bytes(7)), (60, bytes([17, 0, 1, 4]) + bytes(4)), (137, bytes(MPLS(s=1) / I))):
    for c in range(0, 20):
        add(E / IP(src='192.0.2.1', dst='192.0.2.2', proto=p) / u[:c])
        add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=p) / u, 54 + c)
for t, b in ((0x806, bytes(ARP())), (0x8847, bytes(MPLS(s=0) / MPLS(s=1) / I)), (0x8100, bytes(Dot1Q() / I)),
    (0x88cc, tlv(1, b'\x07a') + tlv(2, b'\x05b')), (0x86dd, bytes(I6))):
    for c in range(0, 10):
        add(Ether(dst=E.dst, src=E.src, type=t) / b, 14 + c)
# Lists of messages.
P = lambda n, *more: add(E / IP(src='192.0.2.1', dst='224.0.0.13', proto=103) / (bytes([32, 0, 0, 0]) + b''.join(
    struct.pack('>HH', t, len(v) - c) + v for t, v, c in more)))
P(0, (1, b'\x00\x69', 0), (2, b'\x81\xf4\x09\xc4', 0), (19, b'\x00\x00\x00\x07', 0),
    (20, b'\x12\x34\x56\x78', 0), (24, b'\x01\x00' + b'\xfe\x80' + bytes(13) + b'\x07', 0), (61, b'abcd', 0))
P(0, (1, b'\xff\xff', 0), (20, b'\x00\x00', -9))
BA = lambda a, flag=196: G(3784, bytes([32, flag, 3, 24 + len(a)]) + b'\x00\x00\x00\x01\x00\x00\x00\x02'
    + b'\x00\x00\x03\xe8' * 3 + a, 49152)
for t, n in ((1, 9), (2, 24), (3, 24), (4, 28), (5, 28), (9, 9)):
    BA(bytes([t, n, 7, 0][:4]) + b'\x00\x00\x00\x05' + b'k' * (n - 8))
BA(b'\x02\x63\x07' + bytes(21))
BA(b'\x02')
X = lambda *sets: G(4739, struct.pack('>HHIII', 10, 16 + sum(map(len, sets)), 1700000000, 5, 9) + b''.join(sets))
XS = lambda i, b: struct.pack('>HH', i, 4 + len(b)) + b
X(XS(2, struct.pack('>HHHHHH', 256, 2, 8, 4, 12, 4) + struct.pack('>HHHHI', 257, 1, 0x8000 | 100, 65535, 32473)))
X(XS(3, struct.pack('>HHHHHHH', 258, 2, 1, 149, 4, 41, 8) + b'\x00\x00'), XS(400, b'data'))
X(XS(2, struct.pack('>HHHH', 256, 3, 8, 4)))
X(XS(2, struct.pack('>HH', 256, 0)))
SR = lambda tlvs: b'\x11' + bytes([(16 + len(tlvs)) // 8, 4, 0, 0, 0, 0, 9]) + (
    socket.inet_pton(10, '2001:db8::7') + tlvs)
for tlvs in (b'\x05\x26\x80\x00\x00\x00\x00\x07' + bytes(32),
    b'\x00\x04\x05\x00\x00\x00\x00\x00', b'\x05\x99' + bytes(6)):
    add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=43) / (SR(tlvs) + bytes(U)))
add(E / IPv6(src='2001:db8::1', dst='2001:db8::2', nh=43) / (b'\x11\x01\x03\x00\xff\x60\x00\x00'
    + b'\x05\x06' + bytes(6) + bytes(U)))
RA = lambda n, words, b: add(E / I / (lambda h: ICMP(h[:2] + b'\x00\x00' + h[4:]))(
    bytes([9, 0, 0, 0, n, words, 0, 90]) + b))
for n, words, count in ((2, 2, 2), (2, 3, 2), (3, 2, 1)):
    RA(n, words, (b'\xc0\x00\x02\x09' + b'\xff\xff\xff\xfe') * count)
add(E / I / IGMPv3(type=17) / IGMPv3mq(gaddr='233.252.0.1', srcaddrs=['192.0.2.7', '192.0.2.8']))
add(E / I6 / IPv6ExtHdrHopByHop(options=[RouterAlert()]) / ICMPv6MLQuery2(mladdr='ff0e::db8:1',
    sources=['2001:db8::7', '2001:db8::8']))
add(E / I6 / IPv6ExtHdrHopByHop(options=[RouterAlert()]) / ICMPv6MLReport2(records=[
    ICMPv6MLDMultAddrRec(rtype=5, dst='ff0e::db8:1', sources=['2001:db8::7', '2001:db8::8']),
    ICMPv6MLDMultAddrRec(rtype=6, dst='ff0e::db8:2', sources=['2001:db8::9'])]))
add(E / I / IGMPv3(type=34) / IGMPv3mr(records=[
    IGMPv3gr(rtype=5, maddr='233.252.0.1', srcaddrs=['192.0.2.8', '192.0.2.9']),
    IGMPv3gr(rtype=6, maddr='233.252.0.2', srcaddrs=['192.0.2.7'])]))
with open(sys.argv[1], 'wb') as out:
    out.write(struct.pack('<IHHiIII', 2712847316, 2, 4, 0, 0, 262144, 1))
    for i, (octets, wire) in enumerate(f):
        out.write(struct.pack('<IIII', i, 0, len(octets), wire) + octets)
