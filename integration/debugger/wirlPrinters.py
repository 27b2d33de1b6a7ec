# SPDX-License-Identifier: Apache-2.0
"""Shows the objects of libWirl in gdb and lldb as people read them.

gdb loads this file by itself where it is installed for the library; otherwise `source wirlPrinters.py`.
lldb: `command script import wirlPrinters.py`.

It reads memory alone and runs no code of the process, so it works on core files. `describe` is written against
`Node`, which each debugger implements: it returns a line of text and the parts to show below it.
"""

import ipaddress
import re


class Node:
    """A value in the process that is looked at. `of(value)` wraps another one of the same debugger."""

    def path(self, *names):
        node = self
        for name in names:
            node = node.member(name)
        return node

    def find(self, name):
        """The first member of that name that holds a pointer, in the object or what it is made of."""
        for label, part in self.parts():
            if label == name and part.is_pointer():
                return part
            found = part.find(name) if part.is_class() else None
            if found:
                return found
        return None

    def items(self):
        """The elements of a std::vector."""
        first, end = self.path("_M_impl", "_M_start"), self.path("_M_impl", "_M_finish")
        size = first.pointee_size()
        count = (end.number() - first.number()) // size if size else 0
        return [first.element(i) for i in range(min(max(count, 0), 1 << 16))]

    def text(self):
        """The contents of a std::string."""
        length = self.member("_M_string_length").number()
        return self.memory(self.path("_M_dataplus", "_M_p").number(), min(length, 4096))


# What the objects hold --------------------------------------------------------------------------------------------


def quoted(octets):
    return '"' + octets.decode("utf-8", "backslashreplace").replace('"', '\\"') + '"'


def eth(octets):
    return ":".join("%02x" % octet for octet in octets)


def number_of(node):
    return str(node.member("value_").number())


def ip6(octets):
    return str(ipaddress.IPv6Address(octets))


def gen_addr(node):
    octets = node.path("storage_", "octets_").raw()
    family = node.member("af_").number()
    if family == 1:
        return str(ipaddress.IPv4Address(octets[:4]))
    return ip6(octets) if family == 2 else "(no address)"


def joined(separator, *names):
    def show(node):
        return separator.join(plain(node.member(name)) for name in names)

    return show


def name_of(node):
    return quoted(node.path("value_", "value_").text())


VALUES = {
    "Kiv::String": lambda node: quoted(node.member("value_").text()),
    "Wirl::EthAddr": lambda node: eth(node.member("octets_").raw()),
    "Wirl::Eui64": lambda node: eth(node.member("octets_").raw()),
    "Wirl::EthAddrWithMask": joined(" mask ", "mac_", "mask_"),
    "Wirl::IpAddr": lambda node: str(ipaddress.IPv4Address(node.member("octets_").raw())),
    "Wirl::Ip6Addr": lambda node: ip6(node.member("octets_").raw()),
    "Wirl::IpGenAddr": gen_addr,
    "Wirl::Prefix": joined("/", "address_", "len_"),
    "Wirl::Ip6Prefix": joined("/", "address_", "len_"),
    "Wirl::IpGenPrefix": joined("/", "address_", "len_"),
    "Wirl::IpGenPrefixBase": joined("/", "address_", "len_"),
    "Wirl::IpAddrWithMask": joined("/", "address_", "len_"),
    "Wirl::Ip6AddrWithMask": joined("/", "address_", "len_"),
    "Wirl::IpGenAddrWithMask": joined("/", "address_", "len_"),
    "Wirl::IpAddrWithFullMask": lambda node: "%s mask %s" % (
        plain(node.member("address_")), ipaddress.IPv4Address(node.member("mask_").number())),
    "Wirl::Ip6AddrWithFullMask": joined(" mask ", "address_", "mask_"),
    "Wirl::IpGenAddrWithFullMask": joined(" mask ", "address_", "mask_"),
    "Wirl::IpAndPort": joined(":", "ip_", "port_"),
    "Wirl::Ip6AndPort": lambda node: "[%s]:%d" % (
        plain(node.member("ip_")), node.member("port_").number()),
    "Wirl::IpGenAndPort": lambda node: ("%s:%d" if node.path("ip_", "af_").number() == 1 else "[%s]:%d") % (
        plain(node.member("ip_")), node.member("port_").number()),
    "Wirl::NamespaceName": name_of,
    "L3::VrfName": name_of,
    "Wirl::InterfaceName": lambda node: quoted(node.member("name_").raw().split(b"\0")[0]),
    "Wirl::InterfaceIndex": number_of,
    "Wirl::Port": number_of,
    "Wirl::PortRange": joined("-", "first_", "last_"),
    "Wirl::AsNumber": number_of,
    "Wirl::Ip6PrefixLen": number_of,
}


def plain(node):
    """A value in one line."""
    kind = node.type_name()
    if node.is_class():
        parts = list(node.parts())
        if len(parts) == 1 and parts[0][0] == "instance_":  # an enumeration of an entity
            return parts[0][1].own_text()
    if kind in VALUES:
        return VALUES[kind](node)
    if kind.startswith("Kiv::Ptr<"):
        return pointer_text(node)
    if node.is_class():
        if kind.startswith("std::chrono::duration<"):
            return time_text(node.member("__r").number(signed=True))
        known = described(node)
        text = known or node.own_text()
        return text if known or len(text) <= 60 else "{...}"
    return node.own_text()


def time_text(nanoseconds):
    if nanoseconds == 2**63 - 1:
        return "infinite"
    return "%d.%09d s" % divmod(nanoseconds, 10**9)


def pointer_text(node):
    target = node.member("object_")
    if target.number() == 0:
        return "null"
    target = target.pointee(dynamic=True)
    count = target.path("references_", "_M_i").number()
    holders = "immortal" if count >= 0x80000000 else "%d reference%s" % (count, "" if count == 1 else "s")
    return "%s, %s at %#x" % (described(target) or target.type_name(), holders, target.address())


# Packets.

PROTOCOLS = {1: "icmp", 2: "igmp", 4: "ip", 6: "tcp", 17: "udp", 41: "ip6", 47: "gre", 58: "icmp6", 89: "ospf",
             103: "pim", 112: "vrrp", 132: "sctp"}


def pkt_bytes(node):
    """The private head data of a packet and the part of its shared buffer that it shows."""
    private = node.path("fields_", "privateBytes").number()
    area = node.member("privateBuffer_").raw()
    octets = area[len(area) - private:] if 0 < private <= len(area) else b""
    word = node.path("shown_", "word_").number()
    length, offset = word >> 32, word & 0xFFFFFFFF
    buffer = node.path("sharedBuffer_", "object_")
    if buffer.number() and length:
        size = buffer.pointee().member("size_").number()
        if offset + length <= size:
            start = buffer.pointee().member("buffer_").pointer_inside()
            octets += node.memory(start + offset, length)
    return octets


def headers(octets):
    """The headers at the front of a packet, as far as they tell what they are."""
    shown = []
    ethernet = False
    version = octets[0] >> 4 if octets else 0
    kind = {4: 0x0800, 6: 0x86DD}.get(version, 0)
    if kind == 0x0800 and (len(octets) < 20 or int.from_bytes(octets[2:4], "big") > len(octets)):
        kind = 0
    if kind == 0x86DD and (len(octets) < 40 or int.from_bytes(octets[4:6], "big") + 40 > len(octets)):
        kind = 0
    at = 0
    if not kind and len(octets) >= 14:
        shown.append("eth %s > %s" % (eth(octets[6:12]), eth(octets[:6])))
        kind, at, ethernet = int.from_bytes(octets[12:14], "big"), 14, True
        while kind in (0x8100, 0x88A8) and len(octets) >= at + 4:
            shown.append("vlan %d" % (int.from_bytes(octets[at:at + 2], "big") & 0xFFF))
            kind, at = int.from_bytes(octets[at + 2:at + 4], "big"), at + 4
    rest = octets[at:]
    protocol = None
    if kind == 0x0800 and len(rest) >= 20 and rest[0] >> 4 == 4:
        shown.append("ip %s > %s" % (ipaddress.IPv4Address(rest[12:16]), ipaddress.IPv4Address(rest[16:20])))
        fragment = int.from_bytes(rest[6:8], "big") & 0x1FFF
        protocol, rest = None if fragment else rest[9], rest[(rest[0] & 15) * 4:]
    elif kind == 0x86DD and len(rest) >= 40 and rest[0] >> 4 == 6:
        shown.append("ip6 %s > %s" % (ip6(rest[8:24]), ip6(rest[24:40])))
        protocol, rest = rest[6], rest[40:]
    elif ethernet:
        shown.append({0x0806: "arp"}.get(kind, "type %#06x" % kind))
    if protocol in (6, 17, 132) and len(rest) >= 4:
        shown.append("%s %d > %d" % (PROTOCOLS[protocol], int.from_bytes(rest[:2], "big"),
                                     int.from_bytes(rest[2:4], "big")))
    elif protocol is not None:
        shown.append(PROTOCOLS.get(protocol, "protocol %d" % protocol))
    return ", ".join(shown)


def describe_pkt(node):
    octets = pkt_bytes(node)
    private = node.path("fields_", "privateBytes").number()
    parts = []
    if headers(octets):
        parts.append(("headers", headers(octets)))
    if node.path("fields_", "tciPresent").number():
        parts.append(("separate tag", "%#06x" % node.path("fields_", "tciField").number()))
    for line in range(0, min(len(octets), 128), 16):
        parts.append(("[%d]" % line, octets[line:line + 16].hex(" ")))
    if len(octets) > 128:
        parts.append(("...", "%d more bytes" % (len(octets) - 128)))
    return "Wirl::Pkt of %d bytes (%d private)" % (len(octets), private), parts


# Entities and their loop.


def watchers(notifiees):
    """How many reactors are registered on an attribute."""
    table = notifiees.member("table_")
    if table.number() == 0:
        return 0
    last = table.pointee().member("last")
    # Read as plain memory: a registration is of a class that no debugger needs to know.
    next_at, size = last.pointee_offset("next"), last.size()
    count, each = 0, last.number()
    while each and count < 10000:
        count += 1
        each = int.from_bytes(last.memory(each + next_at, size), "little")
        if each == last.number():
            break
    return count


def attr_text(node):
    if node.type_name().startswith("Kiv::RareAttr<"):
        cell = node.find("_M_head_impl")
        if cell is None or cell.number() == 0:
            return "default"
        node, value = cell.pointee(), "value"
    else:
        value = "value_"
    count = watchers(node.member("notifiees" if value == "value" else "notifiees_"))
    text = plain(node.member(value))
    return text if count == 0 else "%s  (watched by %d)" % (text, count)


def attributes(node):
    """Name and text of each attribute of an entity, those of base classes first."""
    for label, part in node.parts():
        kind = part.type_name()
        if label is None:
            yield from attributes(part)
        elif kind.startswith(("Kiv::Attr<", "Kiv::RareAttr<")):
            yield label, attr_text(part)


def describe_entity(node):
    return "%s %s" % (node.type_name(), plain(node.path("name_"))), list(attributes(node))


def describe_clock(node):
    text, parts = describe_entity(node)
    pending = time_text(node.path("timeMin_", "__r").number(signed=True))
    return "%s: %s" % (text, "nothing pending" if pending == "infinite" else "fires at " + pending), parts


def describe_loop(node):
    parts, watched, pending = [], 0, []
    for slot in node.member("slots_").items():
        target = slot.member("target")
        if target.number() == 0:
            continue
        watched += 1
        events = slot.member("events").number()
        wants = [word for bit, word in ((1, "readable"), (4, "writable"), (1 << 31, "edge-triggered")) if events & bit]
        name = plain(target.pointee().path("name_"))
        parts.append(("descriptor %d" % slot.member("fd").number(signed=True), "%s, %s" % (
            name, ", ".join(wants) or "not watched")))
    for queue in ("due_", "heap_", "fresh_"):
        for deadline in node.member(queue).items():
            clock = deadline.member("clock")
            if clock.number():
                time = deadline.path("time", "__r").number(signed=True)
                pending.append((time, deadline.member("order").number(), plain(clock.pointee().path("name_"))))
    for time, _, name in sorted(pending):
        parts.append(("clock", "%s fires at %s" % (name, time_text(time))))
    state = "running" if node.member("running_").number() else "at rest"
    if node.member("simulated_").number():
        state += ", simulated time " + time_text(node.path("simulatedNow_", "__r").number(signed=True))
    return "Kiv::ActivityLoop (%s): %d descriptor%s, %d clock%s" % (
        state, watched, "" if watched == 1 else "s", len(pending), "" if len(pending) == 1 else "s"), parts


def describe(node):
    """A line of text and the parts, each a label and a text; None for a type that this file does not know."""
    kind = node.type_name()
    if kind in VALUES:
        return VALUES[kind](node), []
    if kind == "Wirl::Pkt":
        return describe_pkt(node)
    if kind == "Kiv::ActivityLoop":
        return describe_loop(node)
    if kind == "Kiv::Clock":
        return describe_clock(node)
    if kind.startswith(("Kiv::Attr<", "Kiv::RareAttr<")):
        return attr_text(node), []
    if kind.startswith("Kiv::Ptr<"):
        target = node.member("object_")
        below = describe(target.pointee(dynamic=True)) if target.number() else None
        return pointer_text(node), below[1] if below else []
    if node.derives_from("Kiv::Entity"):
        return describe_entity(node)
    return None


def described(node):
    found = describe(node)
    return found and found[0]


# gdb --------------------------------------------------------------------------------------------------------------


def serve_gdb(gdb):
    class GdbNode(Node):
        def __init__(self, value):
            self.value = value
            self.type = value.type.strip_typedefs().unqualified()
            if self.type.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
                self.value = value.referenced_value()
                self.type = self.value.type.strip_typedefs().unqualified()

        def type_name(self):
            return self.type.name or str(self.type)

        def is_class(self):
            return self.type.code in (gdb.TYPE_CODE_STRUCT, gdb.TYPE_CODE_UNION)

        def is_pointer(self):
            return self.type.code == gdb.TYPE_CODE_PTR

        def derives_from(self, name, of=None):
            of = of or self.type
            if of.code != gdb.TYPE_CODE_STRUCT:
                return False
            bases = (f.type.strip_typedefs() for f in of.fields() if f.is_base_class)
            return of.name == name or any(self.derives_from(name, base) for base in bases)

        def parts(self):
            for field in self.type.fields():
                if hasattr(field, "bitpos"):  # not static
                    label = None if field.is_base_class else field.name
                    yield label, GdbNode(self.value[field])

        def member(self, name):
            return GdbNode(self.value[name])

        def number(self, signed=False):
            number = int(self.value)
            return number if signed or number >= 0 else number + (1 << (8 * self.type.sizeof))

        def own_text(self):
            if self.type.code == gdb.TYPE_CODE_INT:  # octets are numbers, no characters
                return str(int(self.value))
            return self.value.format_string(symbols=False, pretty_structs=False).rpartition("::")[2]

        def raw(self):
            return self.memory(self.address(), self.type.sizeof)

        def address(self):
            return int(self.value.address)

        def memory(self, address, count):
            return bytes(gdb.selected_inferior().read_memory(address, count)) if count else b""

        def pointee(self, dynamic=False):
            value = self.value.cast(self.value.dynamic_type) if dynamic else self.value
            return GdbNode(value.dereference())

        def pointee_size(self):
            return self.type.target().sizeof

        def pointee_offset(self, name):
            return self.type.target()[name].bitpos // 8

        def size(self):
            return self.type.sizeof

        def element(self, index):
            return GdbNode((self.value + index).dereference())

        def pointer_inside(self):
            return int.from_bytes(self.raw()[:gdb.lookup_type("void").pointer().sizeof], "little")

    class Printer:
        def __init__(self, found):
            self.found = found

        def to_string(self):
            return self.found[0]

        def children(self):
            return ((label, text) for label, text in self.found[1])

    def lookup(value):
        # The class that the object is of, where the static type is a base of it.
        code = value.type.strip_typedefs().code
        if code not in (gdb.TYPE_CODE_STRUCT, gdb.TYPE_CODE_REF):
            return None
        name = value.type.strip_typedefs().unqualified().name or ""
        if code == gdb.TYPE_CODE_STRUCT and name.startswith("std::"):
            return None
        try:
            node = GdbNode(value)
            if node.derives_from("Kiv::Entity"):
                node = GdbNode(node.value.cast(node.value.dynamic_type))
            found = describe(node)
            return found and Printer(found)
        except (gdb.error, KeyError, ValueError):
            return None  # an object that is not in order is shown raw

    lookup.name = "libWirl"
    gdb.pretty_printers[:] = [each for each in gdb.pretty_printers if getattr(each, "name", "") != "libWirl"]
    gdb.pretty_printers.append(lookup)


# lldb -------------------------------------------------------------------------------------------------------------


def lldb_node(lldb, value):
    class LldbNode(Node):
        def __init__(self, sb):
            self.sb = sb.GetNonSyntheticValue()
            if self.sb.GetType().IsReferenceType():
                self.sb = self.sb.Dereference()
            self.type = self.sb.GetType().GetUnqualifiedType().GetCanonicalType()
            if not self.sb.IsValid():
                raise ValueError("no such member: %s" % value)

        def type_name(self):
            return self.type.GetName()

        def is_class(self):
            return self.type.GetTypeClass() in (lldb.eTypeClassStruct, lldb.eTypeClassClass, lldb.eTypeClassUnion)

        def is_pointer(self):
            return self.type.IsPointerType()

        def derives_from(self, name, of=None):
            of = of or self.type
            bases = (of.GetDirectBaseClassAtIndex(i).GetType() for i in range(of.GetNumberOfDirectBaseClasses()))
            return of.GetName() == name or any(self.derives_from(name, base) for base in bases)

        def parts(self):
            count = self.type.GetNumberOfDirectBaseClasses()
            bases = {self.type.GetDirectBaseClassAtIndex(i).GetName() for i in range(count)}
            for index in range(self.sb.GetNumChildren()):
                child = self.sb.GetChildAtIndex(index)
                yield None if child.GetName() in bases else child.GetName(), LldbNode(child)

        def member(self, name):
            found = self.sb.GetChildMemberWithName(name)
            if found.IsValid():
                return LldbNode(found)
            raise ValueError("%s has no %s" % (self.type_name(), name))

        def number(self, signed=False):
            return self.sb.GetValueAsSigned() if signed else self.sb.GetValueAsUnsigned()

        def own_text(self):
            if self.type.GetBasicType() in (lldb.eBasicTypeUnsignedChar, lldb.eBasicTypeSignedChar):
                return str(self.number())
            return self.sb.GetValue() or "{...}"

        def raw(self):
            error = lldb.SBError()
            return self.sb.GetData().ReadRawData(error, 0, self.size()) or b""

        def address(self):
            return self.sb.GetLoadAddress()

        def memory(self, address, count):
            error = lldb.SBError()
            octets = self.sb.GetProcess().ReadMemory(address, count, error) if count else b""
            if not error.Success() and count:
                raise ValueError(error.GetCString())
            return octets

        def pointee(self, dynamic=False):
            known = self.sb.GetDynamicValue(lldb.eDynamicDontRunTarget) if dynamic else self.sb
            return LldbNode((known if known.IsValid() else self.sb).Dereference())

        def pointee_size(self):
            return self.type.GetPointeeType().GetByteSize()

        def pointee_offset(self, name):
            of = self.type.GetPointeeType()
            fields = (of.GetFieldAtIndex(i) for i in range(of.GetNumberOfFields()))
            return next(field.GetOffsetInBytes() for field in fields if field.GetName() == name)

        def size(self):
            return self.type.GetByteSize()

        def items(self):  # by the vector's three pointers: lldb does not always find their names
            size = self.sb.GetTarget().GetAddressByteSize()
            first, end = (int.from_bytes(self.raw()[at:at + size], "little") for at in (0, size))
            of = self.type.GetTemplateArgumentType(0)
            found = range(first, min(end, first + (of.GetByteSize() << 16)), of.GetByteSize() or 1)
            return [LldbNode(self.sb.CreateValueFromAddress("[]", at, of)) for at in found]

        def pointer_inside(self):
            return int.from_bytes(self.raw()[:self.sb.GetTarget().GetAddressByteSize()], "little")

    return LldbNode(value)


def lldb_summary(value, _):
    import lldb

    try:
        found = describe(lldb_node(lldb, value))
    except ValueError as failure:
        return "(%s)" % failure
    if not found:
        return ""
    text, parts = found
    return text + "".join("\n  %s = %s" % part for part in parts)


def __lldb_init_module(debugger, _):
    names = [re.escape(name) for name in VALUES]
    names += ["Wirl::Pkt", "Kiv::ActivityLoop", "Kiv::Clock", "Kiv::FileDescriptor", "Kiv::(Rare)?Attr<.*>"]
    names += ["Kiv::Ptr<.*>", r"Wirl::\w*(Pam|PamConnector|FileDescriptor|Sm)"]
    debugger.HandleCommand("type summary add --python-function %s.lldb_summary --no-value --category libWirl -x '^(%s)$'"
                           % (__name__, "|".join(names)))
    debugger.HandleCommand("type category enable libWirl")


try:
    import gdb as _gdb
except ImportError:
    pass
else:
    serve_gdb(_gdb)
