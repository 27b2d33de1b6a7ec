#!/usr/bin/env python3
"""Records what tcpdump says of frames, for CapturesTest: record.py CAPTURES >data/verdicts.txt

A line "capture NAME" begins the frames of a file in the folder CAPTURES, "base NAME HEX" gives a frame made here. Then
one line a frame: its number in the capture, or what was changed of the base ("OFFSET^BITS" or "/BYTES LEFT"), the
verdict, and the filters that it passes, one digit each.
"""
import pathlib, re, struct, subprocess, sys, tempfile

MACS = "0a0000000001 0a0000000002"
IP6 = "fe80000000000000 0000000000000001 ff02000000000000 00000001ff000002"
NS = "8700 7296 00000000 fe80000000000000 0000000000000002 0101 0a0000000002"
BASES = {
    "udp": MACS + "0800 4500002e 00010000 4011 66bc 0a000001 0a000002 03e80035 001a0000" + "78" * 18,
    "taggedUdp": MACS + "8100 6007 0800 4500002e 00010000 4011 66bc 0a000001 0a000002 03e80035 001a0000" + "78" * 18,
    "tcpBehindOptions": MACS + "0800 4600002c 00010000 4006 d1c4 0a000001 0a000002 94040000"
                               "03e80050 00000000 00000000 50022000 00000000",
    "ns": MACS + "86dd 60000000 0020 3aff" + IP6 + NS,
    "twiceTaggedNs": MACS + "88a8 0007 8100 0008 86dd 60000000 0020 3aff" + IP6 + NS,
}
FILTERS = ["ip", "ip6", "udp port 53 or udp port 67", "tcp[tcpflags] & tcp-syn != 0", "icmp6 and ip6[40] == 135",
           "ether multicast and not ip6", "vlan and (arp or ip or ip6)", "ip proto 112 or ip6 proto 112",
           "ip[8] > 64 and greater 60"]


def said(text):
    """The result code that tcpdump's words stand for."""
    head = re.match(r"\S+ > \S+, (?:ethertype 802\.1Q[^,]*,(?: length \d+:)? vlan \d+, p \d+(?:, DEI)?, )*"
                    r"ethertype IPv([46]) [^,]+,(?: length \d+:)? +([^\n]*)", text)
    if not head:
        return "wrongEthType"
    ip6, words = head[1] == "6", head[2]
    for pattern, code4, code6 in ((r"\[\|ip", "pktTooShort", "pktTooShort"),
                                  (r"version error|IP.*\(invalid\)$", "nonIpHdr", "nonIp6Hdr")):
        if re.match(pattern, words):
            return code6 if ip6 else code4
    if ip6:
        if "truncated-ip6" in words:
            return "-" if re.search(r"payload length: 0\).*jumbo", words) else "badIp6PayloadLen"
        if "[bad icmp6 cksum" in words:  # the check skips no extension headers
            return "badIcmp6Checksum" if "next-header ICMPv6" in words else "-"
        # The check asks for 4 bytes, without which tcpdump does not look at the checksum.
        return "badIp6PayloadLen" if re.search(r"ICMPv6 \(58\) payload length: [0-3]\)", words) else "noError"
    if words.startswith("truncated-ip"):
        return "badIpPayloadLen"
    # There is no code for an impossible header length: the checksum of as many bytes is wrong.
    return "badIpHdrChecksum" if "bad cksum" in words or re.search("bad-h?len", text) else "noError"


def records(frames):
    """Verdict and filters of each frame, a list of octets."""
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder, "all")
        with file.open("wb") as out:
            out.write(struct.pack("=IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, 1))
            for i, octets in enumerate(frames):
                out.write(struct.pack("=IIII", i, 0, len(octets), len(octets)) + octets)

        def tcpdump(*args):
            return subprocess.run(["tcpdump", "-r", file, *args], capture_output=True, check=True, text=True).stdout
        texts = re.split(r"^\d+\.000000 ", tcpdump("-nnvvett"), flags=re.M)[1:]
        assert len(texts) == len(frames)
        passing = [set(re.findall(r"^(\d+)\.000000 ", tcpdump("-nnett", f), flags=re.M)) for f in FILTERS]
    return [(said(text), "".join("01"[str(i) in p] for p in passing)) for i, text in enumerate(texts)]


def captured(file):
    data = file.read_bytes()
    order = "<" if data[:4] in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    at, frames = 24, []
    while at < len(data):
        size = struct.unpack(order + "I", data[at + 8:at + 12])[0]
        frames.append(data[at + 16:at + 16 + size])
        at += 16 + size
    return frames


print("# What tcpdump says of frames; made by record.py.")
for text in FILTERS:
    print("filter", text)
for name, text in BASES.items():
    base = bytes.fromhex(text)
    print("base", name, base.hex())
    names, frames = ["0^0"], [base]
    for at in range(12, min(len(base), 66)):
        for bits in (0x01, 0x20):
            names.append(f"{at}^{bits}")
            frames.append(base[:at] + bytes([base[at] ^ bits]) + base[at + 1:])
    for left in range(14, len(base)):
        names.append(f"/{left}")
        frames.append(base[:left])
    for frame, (verdict, passes) in zip(names, records(frames)):
        print(frame, verdict, passes)
for file in sorted(pathlib.Path(sys.argv[1]).glob("*.pcap")):
    print("capture", file.name)
    for i, (verdict, passes) in enumerate(records(captured(file))):
        print(i, verdict, passes)
