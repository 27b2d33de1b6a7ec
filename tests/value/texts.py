#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The slow reader: every grammar of the value types once more, from its description, and what it makes of many texts.

Writes texts.tsv, which the tests hold the library against; run it again after a grammar has changed:
    tests/value/texts.py >tests/value/texts.tsv
Rows, with tabs between the fields, and octets that do not print as \\xNN:
    read TYPE TEXT LENGTH CANONICAL MESSAGE   LENGTH characters at the front are the value CANONICAL, or no value (-);
                                              MESSAGE, if any, refuses the whole text
    order TYPE TEXT...                        values in ascending order
    holds TYPE TEXT PREDICATE...              the predicates that hold of an address
    bits TYPE TEXT HASH SEEDED OCTETS         hash(), hash(5) and what the attribute log gets, in hexadecimal
Addresses are also read by Python's ipaddress, which must agree but where it is known not to.
"""
import ipaddress
import random
import re
import string

HEX, DIGITS = set(string.hexdigits), set(string.digits)


class Refused(Exception):
    pass


class Text:
    def __init__(self, text, at=0):
        self.text, self.at = text, at

    def peek(self, count=1):
        return self.text[self.at:self.at + count]

    def rest(self):
        return self.text[self.at:]

    def literal(self, literal):
        if not self.rest().startswith(literal):
            return False
        self.at += len(literal)
        return True

    def run(self, allowed):
        begin = self.at
        while self.at < len(self.text) and self.text[self.at] in allowed:
            self.at += 1
        return self.text[begin:self.at]

    def number(self, message, maximum=None, too_large=None):
        digits = self.run(DIGITS)
        if not digits:
            raise Refused(message)
        if maximum is not None and int(digits) > maximum:
            raise Refused(too_large or message)
        return int(digits)


# Values are tuples that sort as the type does where that is said; printing takes the tuple.

def hex_octets(t, size, message):
    octets, separator = [], None
    while True:
        digits = t.run(HEX)
        if not digits:
            raise Refused(message)
        group = int(digits, 16)
        if separator is None:
            separator = t.peek()
            if separator not in (':', '-', '.') or not separator:
                raise Refused(message)
        if group > (0xffff if separator == '.' else 0xff):
            raise Refused(message)
        octets += [group >> 8, group & 255] if separator == '.' else [group]
        if len(octets) == size:
            return tuple(octets)
        if not t.literal(separator):
            raise Refused(message)


def colons(octets):
    return ':'.join('%02x' % o for o in octets)


def ip4(t, message='Invalid IpAddr'):
    octets = []
    for i in range(4):
        if i and not t.literal('.'):
            raise Refused(message)
        octets.append(t.number(message, 255))
    return tuple(octets)


def show4(octets):
    return '%d.%d.%d.%d' % octets


def number_of(octets):
    return int.from_bytes(bytes(octets), 'big')


def masked(octets, length):
    bits = 8 * len(octets)
    return number_of(octets) >> (bits - length) << (bits - length) == number_of(octets)


def length(t):
    if t.peek() != '/' or t.peek(2)[1:] not in DIGITS or len(t.peek(2)) < 2:
        raise Refused('premature end of Prefix type')
    t.at += 1
    return t.number('')


def ip6(t):
    address = re.match(r'[0-9a-fA-F:.]*', t.rest()[:45]).group()
    groups, gap = [], None
    tail = address.rfind(':') + 1
    dotted = address[tail:].count('.') == 3
    if len(re.findall('::?', address)) + dotted > 7:
        raise Refused('Ip6Addr: too many colons')
    s = Text(address)
    if s.literal('::'):
        gap = 0
    elif s.peek() == ':':
        raise Refused('Ip6Addr: leading hex digit expected')
    while gap != 0 or s.rest() or groups:
        if dotted and s.at == tail:
            octets = ip4(s)
            if s.rest():
                raise Refused('Invalid IpAddr')
            groups += [octets[0] << 8 | octets[1], octets[2] << 8 | octets[3]]
            break
        digits = s.run(HEX)
        if not digits:
            raise Refused("Ip6Addr: only one '::' allowed" if s.peek(2) == '::' else 'Ip6Addr: hex digit expected')
        if len(digits) > 4:
            raise Refused('Ip6Addr: too many consecutive hex digits')
        groups.append(int(digits, 16))
        if not s.rest():
            break
        if not s.literal(':'):
            raise Refused("Ip6Addr: ':' expected")
        if s.literal(':'):
            if gap is not None:
                raise Refused("Ip6Addr: only one '::' allowed")
            gap = len(groups)
            if not s.rest():
                break
    if gap is None and len(groups) != 8:
        raise Refused('Ip6Addr: incomplete ipv6 address')
    if gap is not None:
        groups[gap:gap] = [0] * (8 - len(groups))
    t.at += len(address)
    return tuple(o for g in groups for o in (g >> 8, g & 255))


def show6(octets):
    groups = [octets[i] << 8 | octets[i + 1] for i in range(0, 16, 2)]
    if groups[:6] == [0, 0, 0, 0, 0, 0xffff]:
        return '::ffff:' + show4(octets[12:])
    best = (1, 0)
    for begin in range(8):
        end = begin
        while end < 8 and groups[end] == 0:
            end += 1
        if end - begin > best[0]:
            best = (end - begin, begin)
    size, begin = best
    if size == 1:
        return ':'.join('%x' % g for g in groups)
    return ':'.join('%x' % g for g in groups[:begin]) + '::' + ':'.join('%x' % g for g in groups[begin + size:])


def family(t):
    found = re.match(r'[^:./]*([:.])', t.rest(), re.S)
    return 4 if found and found.group(1) == '.' else 6 if found else 0


def show(octets):
    return show4(octets) if len(octets) == 4 else show6(octets)


def ipgen(t, message='Invalid IpGenAddr'):
    af = family(t)
    if not af:
        raise Refused(message)
    return ip4(t) if af == 4 else ip6(t)


def prefix(t):
    address = ip4(t)
    len_ = length(t)
    if len_ > 32 or not masked(address, len_):
        raise Refused('Invalid Prefix - non-zero after prefixlen')
    return address, len_


def ip6len(t, expected='Ip6AddrWithMask: prefix size expected'):
    address = ip6(t)
    if t.peek() != '/' or not t.peek(2)[1:] or t.peek(2)[1:] not in DIGITS:
        raise Refused(expected)
    t.at += 1
    return address, t.number('', 128, 'Ip6AddrWithMask: prefix too long')


def with_mask4(t):
    address = ip4(t)
    return address, min(length(t), 2**32 - 1)


def genprefix(t):
    af = family(t)
    if not af:
        raise Refused('Invalid prefix')
    return prefix(t) if af == 4 else ip6len(t, 'premature end of Prefix type')


def genmask(t):
    address = ipgen(t)
    len_ = length(t)
    if len_ > 8 * len(address):
        raise Refused('Invalid IPv%d Prefix Length' % (4 if len(address) == 4 else 6))
    return address, len_


def mask_of(size, len_):
    return tuple(((1 << len_) - 1 << 8 * size - len_).to_bytes(size, 'big'))


def show_masked(value):
    address, mask = value
    for len_ in range(8 * len(mask) + 1):
        if mask == mask_of(len(mask), len_):
            return '%s/%d' % (show(address), len_)
    return show(address) + '/' + show(mask)


def fullmask6(t):
    address = ip6(t)
    if not t.literal('/'):
        raise Refused('Ip6AddrWithFullMask: mask expected')
    digits = re.match(r'[0-9]+(?![0-9a-fA-F:.])', t.rest())
    if digits and int(digits.group()) <= 128:
        t.literal(digits.group())
        return address, mask_of(16, int(digits.group()))
    return address, ip6(t)


def fullmaskgen(t):
    af = family(t)
    if not af:
        raise Refused('Invalid IPv4/IPv6 address')
    reader, size = (ip4, 4) if af == 4 else (ip6, 16)
    try:
        address = reader(t)
    except Refused:
        raise Refused('Invalid IPv%d address' % af)
    if not t.literal('/') or not t.rest():
        raise Refused('premature end of Prefix type')
    if re.match(r'[0-9a-fA-F]*[:.]', t.rest()):
        try:
            return address, reader(t)
        except Refused:
            raise Refused('Invalid IPv%d mask' % af)
    long = 'Invalid IPv4 prefix length' if af == 4 else 'Invalid IPv6 prefix'
    return address, mask_of(size, t.number('Invalid IPv%d prefix' % af, 8 * size, long))


def represented(type_, fields, invalid):
    def read(t):
        if not t.literal("Value('%s', ** {" % type_):
            raise Refused(invalid)
        values = []
        for i, (name, reader) in enumerate(fields):
            if not t.literal("%s'%s': " % (', ' if i else '', name)):
                raise Refused(invalid)
            values.append(reader(t))
        if not t.literal('})'):
            raise Refused(invalid)
        return tuple(values)
    return read


def integer(bits):
    return lambda t: t.number('Invalid integer', 2**bits - 1, 'Integer out of range')


def and_port4(t):
    if t.rest().startswith('Value('):
        return represented('Wirl::IpAndPort', [('ip', ip4), ('port', integer(16))], 'Invalid IpAndPort')(t)
    ip = ip4(t)
    if not t.literal(':'):
        raise Refused('Invalid IpAndPort')
    return ip, t.number('Invalid IpAndPort', 65535)


def signed_length(t):
    text = 'PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed'
    negative = t.literal('-')
    value = t.number('Invalid PrefixLen', 1 if negative else 128, text)
    return (-value if negative else value,)


DSCP = dict([('CS%d' % i, 8 * i) for i in range(8)] + [('AF%d%d' % (i, k), 8 * i + 2 * k) for i in range(1, 5)
            for k in range(1, 4)] + [('EF', 46), ('LE', 1), ('VOICE-ADMIT', 44)])


def dscp(t):
    for name, value in DSCP.items():
        if t.rest().upper().startswith(name):
            t.at += len(name)
            return (value,)
    return (t.number('Invalid IpDscp', 63, 'IpDscp::value > 63 not allowed'),)


def bounded(type_, maximum, too_large=None):
    too_large = too_large or '%s::value > %d not allowed' % (type_, maximum)
    return lambda t: (t.number('Invalid ' + type_, maximum, too_large),)


def asn(t):
    dotted = re.match(r'([0-9]+)\.([0-9]+)', t.rest())
    if dotted and int(dotted.group(1)) <= 65535:
        t.literal(dotted.group())
        if int(dotted.group(2)) > 65535:
            raise Refused('AsNumber::value > 4294967295 not allowed')
        return (int(dotted.group(1)) << 16 | int(dotted.group(2)),)
    return bounded('AsNumber', 2**32 - 1)(t)


def rd(t):
    wrong = 'Invalid RouteDistinguisher'
    raw = re.match('0x[0-9a-fA-F]{16}', t.rest())
    if raw:
        t.literal(raw.group())
        return tuple(bytes.fromhex(raw.group()[2:]))
    if t.rest().startswith('0x'):
        raise Refused(wrong)
    begin = t.at
    try:
        admin, kind = bytes(ip4(t)), 1
    except Refused:
        t.at = begin
        try:
            number = asn(t)[0]
        except Refused:
            raise Refused(wrong)
        kind = 2 if number > 65535 or '.' in t.text[begin:t.at] else 0
        admin = number.to_bytes(4 if kind else 2, 'big')
    if not t.literal(':'):
        raise Refused(wrong)
    own = t.number(wrong, 65535 if kind else 2**32 - 1)
    return (0, kind) + tuple(admin) + tuple(own.to_bytes(6 - len(admin), 'big'))


def show_rd(octets):
    n = number_of
    if octets[:2] == (0, 0):
        return '%d:%d' % (n(octets[2:4]), n(octets[4:]))
    if octets[:2] == (0, 1):
        return '%s:%d' % (show4(octets[2:6]), n(octets[6:]))
    if octets[:2] == (0, 2):
        return '%d.%d:%d' % (n(octets[2:4]), n(octets[4:6]), n(octets[6:]))
    return '0x' + bytes(octets).hex()


def stack(t):
    labels = []
    more = t.peek() and t.peek() in DIGITS
    while more:
        if len(labels) == 16:
            raise Refused('MplsLabelStack::labels > 16 not allowed')
        labels += bounded('MplsLabel', 2**20 - 1)(t)
        more = t.literal('/')
    return tuple(labels)


def ports(t):
    port = bounded('Port', 65535)
    first = last = port(t)[0]
    if t.literal('-'):
        last = port(t)[0]
    if first > last:
        raise Refused('PortRange::first > PortRange::last not allowed')
    return first, last


def interface(t):
    name = re.match(r'[^\0/: \t\n\v\f\r\xa0]*', t.rest()).group()
    if name in ('', '.', '..'):
        raise Refused('Invalid InterfaceName')
    if len(name) > 15:
        raise Refused('InterfaceName::value::bytes > 15 not allowed')
    t.at += len(name)
    return (name,)


def zone(t):
    name = re.match(r'[^][%\0/: \t\n\v\f\r\xa0]*', t.rest()).group()
    if name in ('', '.', '..') or len(name) > 15 or set(name) <= DIGITS and not 0 < int(name) < 2**31:
        raise Refused('Invalid Ip6Zone')
    t.at += len(name)
    return (int(name), '') if set(name) <= DIGITS else (0, name)


def show_zone(value):
    return str(value[0] or value[1])


def and_port6(t):
    wrong = 'Invalid Ip6AndPort'
    if not t.literal('['):
        raise Refused(wrong)
    address = ip6(t)
    where = zone(t) if t.literal('%') else (0, '')
    if not t.literal(']:'):
        raise Refused(wrong)
    return address, t.number(wrong, 65535), where


def show_port6(value):
    return '[%s%s]:%d' % (show6(value[0]), '%' + show_zone(value[2]) if any(value[2]) else '', value[1])


def and_port(t):
    return and_port6(t) if t.peek() == '[' else and_port4(t)


def dotted(type_):
    def read(t):
        begin = t.at
        try:
            return (number_of(ip4(t)),)
        except Refused:
            t.at = begin
            return bounded(type_, 2**32 - 1)(t)
    return read


def system_id(t):
    found = re.match(r'([0-9a-fA-F]{2}\.?){5}[0-9a-fA-F]{2}', t.rest())
    if not found:
        raise Refused('Invalid IsisSystemId')
    t.literal(found.group())
    return tuple(bytes.fromhex(found.group().replace('.', '')))


def area(t):
    found = re.match(r'[0-9a-fA-F]{2}(\.?[0-9a-fA-F]{2})*', t.rest())
    octets = bytes.fromhex(found.group().replace('.', '')) if found else b''
    if not 1 <= len(octets) <= 13:
        raise Refused('Invalid IsisAreaId')
    t.literal(found.group())
    return tuple(octets)


def show_area(octets):
    text = bytes(octets).hex()
    return '.'.join([text[:2]] + [text[i:i + 4] for i in range(2, len(text), 4)])


def last_covered(value):
    """The order of the IPv4 and IPv6 prefixes: by the last address, then the longer length, then the address."""
    address, len_ = value
    bits = 8 * len(address)
    open_ = max(bits - len_, 0)
    return number_of(address) | (1 << open_) - 1, -len_, address


def show_len(value):
    return '%s/%d' % (show(value[0]), value[1])


def show_ints(form):
    return lambda value: form % value


def one(value):
    return str(value[0])


def by_family(value):
    return len(value if isinstance(value[0], int) else value[0]), value


MAC = ['00:00:5e:00:53:01', '02:1C:73:a:b:c', '02-00-5e-0A-0b-0c', '0200.5e10.0b0c', '1.2.3', '0000000a:00:00:00:00:01',
       '0:0:0:0:0:' + '0' * 40 + 'ff', '000000000000000000:1:2:3:4:5', '0' * 36 + 'abcd.1.2', 'ff:ff:ff:ff:ff:ff',
       '0-0-0-0-0-0', '02005e000102', '00:1c-73:0a:0b:0c', '100:1:2:3:4:5', '1:2:3:4:5:6:', '1:2:3:4:5:6 ', '1:2:3:4:5',
       '1::3:4:5:6', '10000.1.1', '1000000000000000a:00:00:00:00:01', '10000000000000001.2.3', '', '0', ':']
MACS = ('02:00:5e:00:53:01', '0:0:0:0:0:1', '0:0:0:0:1:0', '0:0:0:ff:0:0', '0:0:5e:0:0:0', '0:1:0:0:0:2', '7f:0:0:0:0:0',
        '82:0:0:0:0:0', 'ff:ff:ff:ff:ff:fe')
EUI = ['00:11:22:33:44:55:66:77', '0-1-2-3-4-5-6-Aa', '0011.2233.4455.6677', '000000000001:0:0:0:0:0:0:0',
       '00:11:22:33:44:55:66', '00:11:22:33:44:55:66:77:88', '0011.2233.4455.6677.', '0011.2233.4455', '0.0.0.1', '0.0.1.0',
       '100.0.0.0', 'ff00.0.0.0', '00:11:22:33:44:55:66:177']
IP4 = ['0.0.0.0', '192.0.2.1', '255.255.255.255', '9.10.99.100', '010.001.000.001', '0000255.0.0.08', '1.2.3.' + '0' * 36 + '4',
       '198.51.100.7', '203.0.113.254', '1', '10.1', '10.0.0.', '1..2.3', '256.0.0.1', '1.2.3.256', '1.2.3.1000', ' 1.2.3.4',
       '1.2.3.4 ', '1.2.3.4.5', '1.2.3.4\0', '1.2\0.3.4', '4294967297.0.0.1', '18446744073709551617.0.0.1', '0x1.2.3.4', '...']
LENS = ['/0', '/8', '/24', '/32', '/33', '/40', '/128', '/129', '/000000000000000000000000000008', '/4294967295', '/4294967296',
        '/4294967304', '/18446744073709551624', '/100000000000000000000000000008', '/', '', '/x', '/-8', '/ 8', ' /8', '/8 ',
        '/8/8', '/8\0', '/24.', '/64a', '/255.255.255.0', '/255.0.255.0', '/255.0.0', '/ffff:ffff::', '/::', '/10::', '/f:',
        '/ff', '/12345', '/:1', '/::ffff:1.2.3.4', '/ff::\0', '/ffff:ffff:ffff:ffff::']
IP6 = ['::', '::1', '1::', '2001:db8::1', '2001:DB8:0:0:1:0:0:1', '2001:db8:0:1:1:1:1:1', '1:0:0:1:0:0:0:1', '1:0:0:1:0:0:1:1',
       '1:2:3:4:5:6:7:8', '::ffff:192.0.2.1', '1:2:3:4:5:6:192.0.2.1', 'fe80::1', 'ff02::d', '0:0:1::', '::ffff:010.1.2.3',
       '::1.2.3.' + '0' * 30 + '4', '1:2:3::4:5:6:7:8', '1::2:3:4:5:6:7.8.9.10', 'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff',
       '0000:0000:0000:0000:0000:ffff:255.255.255.255', ':1::', '1::2::3', '1:2:3:4:5:6:7:8:9', '12345::', '1:2:3', ':::',
       '1:2:3:4:5:6:7:', '::1:', 'fe80::1%eth0', '1.2::', '::1.2.3', '1.2.3.4::', '::ffff:256.1.2.3', '::a.b.c.d', '::1.2.3.',
       '1:2:300.1.2.3', '1:2:3:4:5:6:7:1.2.3.4', '12345::2:3::4:5:6:7:8:9', ':::::::::::::::::::::', '::1g', '::1\0', '.', ':',
       '0000:0000:0000:0000:0000:ffff:255.255.255.2555', '1:2:3:4:5:6:7:8::', '::1:2:3:4:5:6:7:8', '', 'x', '::...', '1:']
IP6S = ('::', '::1', '::100', '::1:0:0', '::8000:0:0:0', '0:0:0:1::', '1::', '7fff::', '8000::', 'ff00::', 'ffff:' * 7 + 'ffff')
PREFIX4 = ('0.0.0.0/32', '10.0.0.0/32', '10.1.0.0/24', '10.1.0.0/16', '10.128.0.0/9', '10.0.0.0/8', '11.0.0.0/8', '0.0.0.0/1',
           '255.255.255.255/32', '128.0.0.0/1', '0.0.0.0/0') + tuple(
               str(ipaddress.ip_network((r.getrandbits(32) & 0x81018101, r.randint(0, 32)), strict=False))
               for r in [random.Random(3)] for _ in range(60))
PREFIX6 = ('::/128', '::1/128', '::/64', '::/3', '2000::/128', '2001:db8:0:1::/64', '2001:db8:1::/64', '2001:db8::/32',
           '2001:db9::/48', '2000::/3', 'fe80::/10', 'fe80::/9', '::/0', '::1/64', '::2/64', '::2/3', '2000::1/3', '::7/0')
NUMBERS = ['0', '1', '7', '8', '007', '15', '16', '63', '64', '128', '129', '130', '255', '256', '65535', '65536', '1048575',
           '1048576', '2147483647', '2147483648', '4294967295', '4294967296', '18446744073709551616', '-1', '-2', '-', '+1', '',
           ' 1', '1 ', '1x', '0x1', '1\0', '1.', '340282366920938463463374607431768211455',
           '340282366920938463463374607431768211456', '3402823669209384634633746074317682114550', '9' * 60]
SMALL = ('0', '1', '7')
REPR = "Value('Wirl::%s', ** {%s})"
FULL4 = [REPR % ('IpAddrWithFullMask', "'address': %s, 'mask': %s" % m) for m in (('192.0.2.1', '4278255360'), ('1.2.3', '1'),
         ('10.1.2.3', '4294967296'), ('10.1.2.3', '-1'), ('010.1.2.3', '007'))] + ['', '10.1.2.3/8']
PORT4 = ['192.0.2.1:179', '192.0.2.1:065535', '192.0.2.1', '192.0.2.1:', '192.0.2.1:65536', '192.0.2.1:179 ', '192.0.2:1'] + [
    REPR % ('IpAndPort', "'ip': 192.0.2.1, 'port': %s" % p) for p in ('179', '65536', '', '-1')]
PORT6 = ['[2001:db8::1]:179', '[fe80::1%eth0]:0', '[fe80::1%12]:65535', '[::]:0', '[FE80::1%7]:080', '[::1]', '[::1]:', '::1:179',
         '[::1]:65536', '[::1%]:1', '[::1%0]:1', '[::1%2147483648]:1', '[::1%a/b]:1', '[::1%averyveryverylongname]:1', '[::1:1',
         '[1:2]:3', '[::1]:1x', '[::ffff:192.0.2.1]:5', '[192.0.2.1]:5', '[::1%..]:1']
MASKMAC = [REPR % ('EthAddrWithMask', "'mac': %s, 'mask': %s" % m) for m in (('02:00:5e:00:00:00', 'ff:ff:ff:00:00:00'),
           ('200.5e00.0', 'ff-ff-ff-0-0-0'), ('0:1', '0:0:0:0:0:0'))] + ['']


class Type:
    def __init__(self, read, show_, trailing, seeds, order=(), key=None, count=60):
        self.read, self.show, self.trailing, self.seeds = read, show_, trailing, list(seeds)
        self.order, self.key, self.count = order, key or (lambda value: value), count


def plain(name, maximum, order=SMALL, too_large=None):
    return Type(bounded(name, maximum, too_large), one, 'Invalid ' + name, NUMBERS, order, count=10)


def numbers(text):
    return [a + b for a in text for b in LENS]


MASKS6 = 'Ip6AddrWithFullMask: unexpected trailing characters'
TYPES = {
    'EthAddr': Type(lambda t: hex_octets(t, 6, 'Invalid EthAddr'), colons, 'Invalid EthAddr', MAC, MACS, count=500),
    'EthAddrWithMask': Type(represented('Wirl::EthAddrWithMask', [('mac', lambda t: hex_octets(t, 6, 'Invalid EthAddr')),
                            ('mask', lambda t: hex_octets(t, 6, 'Invalid EthAddr'))], 'Invalid EthAddrWithMask'),
                            lambda v: REPR % ('EthAddrWithMask', "'mac': %s, 'mask': %s" % (colons(v[0]), colons(v[1]))),
                            'Invalid EthAddrWithMask', MASKMAC, MASKMAC[:1]),
    'Eui64': Type(lambda t: hex_octets(t, 8, 'Invalid EthAddr'), colons, 'Invalid Eui64', EUI, EUI[:1] + EUI[8:12], count=200),
    'Eui64U8Key': plain('Eui64U8Key', 7, too_large='Eui64U8Key::value < 0 or > 7 not allowed'),
    'IpAddr': Type(ip4, show4, 'Invalid IpAddr', IP4, ('0.0.0.0', '0.0.0.1', '0.0.1.0', '0.1.0.2', '1.0.0.0', '9.255.255.255',
                   '127.0.0.1', '128.0.0.0', '255.255.255.255'), count=500),
    'Prefix': Type(prefix, show_len, 'Invalid Prefix - non-zero after prefixlen', numbers(('10.0.0.0',)) + ['10.0.0/8', '192.0.2.1/24', '0.0.0.0/0', '1.0.0.0/0', '10.1.0.1/16', '128.0.0.0/1'], PREFIX4, last_covered),
    'IpAddrWithMask': Type(with_mask4, show_len, 'Invalid IpAddrWithMask', numbers(('192.0.2.1',)), ('9.0.0.0/32',
                           '10.0.0.0/8', '10.0.0.0/16', '10.0.0.0/4294967295', '10.0.0.1/0')),
    'IpAddrWithFullMask': Type(represented('Wirl::IpAddrWithFullMask', [('address', ip4), ('mask', integer(32))],
                               'Invalid IpAddrWithFullMask'), lambda v: REPR % ('IpAddrWithFullMask', "'address': %s, 'mask': %d"
                               % (show4(v[0]), v[1])), 'Invalid IpAddrWithFullMask', FULL4, [FULL4[0], FULL4[4]]),
    'IpAndPort': Type(and_port4, lambda v: '%s:%d' % (show4(v[0]), v[1]), 'Invalid IpAndPort', PORT4, ('9.0.0.0:9', '10.0.0.0:0',
                      '10.0.0.0:65535', '11.0.0.0:1')),
    'Ip6Addr': Type(ip6, show6, 'Ip6Addr: unexpected trailing characters', IP6, IP6S, count=900),
    'Ip6AddrU8Key': plain('Ip6AddrU8Key', 15, too_large='Ip6AddrU8Key::value < 0 or > 15 not allowed'),
    'Ip6PrefixLen': plain('Ip6PrefixLen', 129, ('0', '1', '128', '129'),
                          'Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed'),
    'Ip6Prefix': Type(ip6len, show_len, 'Ip6Prefix: unexpected trailing characters', numbers(('2001:db8::1',)) + ['2001:DB8:0:CD3/60', '::ffff:192.0.2.1/0000104'], PREFIX6, last_covered),
    'Ip6AddrWithMask': Type(ip6len, show_len, 'Ip6AddrWithMask: unexpected trailing characters', numbers(('FE80::1',)),
                            PREFIX6, last_covered),
    'Ip6AddrWithFullMask': Type(fullmask6, show_masked, MASKS6, numbers(('2001:db8::1',)), ('::/0', '::/::1', '::/128',
                                '::1/0', '::1/64')),
    'IpGenAddr': Type(ipgen, show, 'Invalid IpGenAddr', IP4 + IP6 + ['abc', '12/1.2.3.4', '1.2.3:4', ' ::1'], ('0.0.0.0',
                      '10.0.0.1', '10.0.0.2', '255.255.255.255', '::', '::1', 'a00:1::'), by_family, 200),
    'IpGenPrefix': Type(genprefix, show_len, 'Invalid prefix', numbers(('10.0.0.0', '2001:db8::')) + ['10/8', 'fe80::1/64', '/8', '', '10/8.0.0.0'], ('0.0.0.0/0',
                        '10.0.0.0/8', '10.0.0.0/16', '10.0.0.0/32', '10.1.0.0/16', '11.0.0.0/8', '::/0', '::/64', '::1/128',
                        '2001:db8::/32', '2001:db8::/48', 'fe80::/10'), by_family),
    'IpGenAddrWithMask': Type(genmask, show_len, 'Invalid IpGenAddrWithMask', numbers(('192.0.2.1', 'FE80::1')) + ['10.1.2/8', '/8', ''],
                              ('10.1.2.3/8', '10.1.2.3/24', '10.1.2.4/0', '::/0'), by_family),
    'IpGenAddrWithFullMask': Type(fullmaskgen, show_masked, 'Invalid IPv4/IPv6 address', numbers(('192.0.2.1', '2001:db8::1'))
                                  + ['10.1.2/8', '1:2/8', '10/8', '/8', ''], ('1.2.3.4/0', '1.2.3.4/8', '1.2.3.5/0', '::/1'), by_family),
    'IpGenAddrWithFullMask::PrefixLen': Type(signed_length, one, 'Invalid PrefixLen', NUMBERS, ('-1', '0', '1', '128'), count=10),
    'IpDscp': Type(dscp, lambda v: {n: k for k, n in reversed(DSCP.items())}.get(v[0], str(v[0])), 'Invalid IpDscp',
                   NUMBERS + list(DSCP) + ['ef', 'Af11', 'AF44', 'voice-admit', 'VOICE', 'CS', 'cs8'], ('CS0', 'LE', '2', 'EF', '63')),
    'IpTtl': plain('IpTtl', 255),
    'U128': plain('U128', 2**128 - 1, SMALL + ('18446744073709551615', '18446744073709551616', str(2**128 - 1)),
                  'U128::value > 2^128 - 1 not allowed'),
    'AsNumber': Type(asn, one, 'Invalid AsNumber', NUMBERS + ['0.65535', '1.0', '65535.65535', '1.65536', '65536.1', '1..2', '1.x',
                     '00001.00002'], ('0', '64496', '65536', '4294967295')),
    'RouteDistinguisher': Type(rd, show_rd, 'Invalid RouteDistinguisher', ['65000:100', '192.0.2.1:100', '1.0:100', '65536:1',
                               '0.65000:7', '65535:4294967295', '65535:4294967296', '65536:65536', '192.0.2.1:65536', '0:0', '1',
                               '1:', ':1', '0x0003000000000001', '0xFFFFffffFFFFffff', '0x00', '1.2.3:4', '4294967296:1',
                               '0x00000000000000010', '0x000100000000000g'],
                               ('0:0', '0:1', '65535:0', '192.0.2.1:5', '1.0:5', '0xffffffffffffffff')),
    'EthSegmentId': Type(lambda t: hex_octets(t, 10, 'Invalid EthSegmentId'), colons, 'Invalid EthSegmentId',
                         ['00:11:22:33:44:55:66:77:88:99', '0011.2233.4455.6677.8899', '0-1-2-3-4-5-6-7-8-9', '0:1:2:3:4:5:6:7:8',
                          '0:1:2:3:4:5:6:7:8:9:a', '0:0:0:0:0:0:0:0:0:100', '1.2.3.4.5.'], ('0.0.0.0.0', '0.0.0.0.1', 'ff00.0.0.0.0')),
    'MplsLabel': plain('MplsLabel', 2**20 - 1),
    'MplsLabelStack': Type(stack, lambda v: '/'.join(map(str, v)), 'Invalid MplsLabelStack', ['', '3', '100/200', '100/', '/100',
                           '1048576', '1/1048575/0', '/'.join('1' * 16), '/'.join('1' * 17), '1//2', '1/x'],
                           ('', '0', '0/0', '0/1', '1', '1/0', '1048575')),
    'Port': plain('Port', 65535),
    'PortRange': Type(ports, lambda v: str(v[0]) if v[0] == v[1] else '%d-%d' % v, 'Invalid PortRange', NUMBERS + ['1024-2047',
                      '80-80', '2-1', '0-65535', '1-65536', '1-', '-1', '1--2', '1-2-3'], ('0', '0-1', '1', '1-65535', '2-3')),
    'InterfaceIndex': plain('InterfaceIndex', 2**31 - 1),
    'InterfaceName': Type(interface, one, 'Invalid InterfaceName', ['eth0', 'a', '.', '..', '...', 'x.100', 'a/b', 'a b', 'a:b', '',
                          'fifteen-octets-', 'sixteen-octets-x', 'a\0', 'a\tb', 'a\x0bb', 'a\xa0b', '\xff', '%[]'],
                          ('A', 'a', 'aa', 'b', 'eth0', '\xff')),
    'VrfId': plain('VrfId', 2**32 - 1),
    'OspfAreaId': Type(dotted('OspfAreaId'), lambda v: show4(tuple(v[0].to_bytes(4, 'big'))), 'Invalid OspfAreaId',
                       IP4[:9] + NUMBERS, ('0.0.0.0', '1', '0.0.1.0', '255.255.255.255')),
    'RouterId': Type(dotted('RouterId'), lambda v: show4(tuple(v[0].to_bytes(4, 'big'))), 'Invalid RouterId', IP4[:9] + NUMBERS,
                     ('0.0.0.0', '192.0.2.1', '192.0.2.2')),
    'IsisSystemId': Type(system_id, lambda v: '.'.join(bytes(v).hex()[i:i + 4] for i in (0, 4, 8)), 'Invalid IsisSystemId',
                         ['1921.6800.1001', '192168001001', '19.21.68.00.10.01', '1921.6800.100', '1921.6800.1001.', '1921..6800.1001',
                          '1921.6800.10012', 'ABCD.ef01.2345', '1.2', '', '1921.6800.1001.00'],
                         ('0000.0000.0000', '0000.0000.0001', '0100.0000.0000', 'ffff.0000.0000')),
    'IsisAreaId': Type(area, show_area, 'Invalid IsisAreaId', ['49', '49.0001', '490001', '49.00.01', '4', '49.', '49.000', '', '.49',
                       '49..01', '47.0200.5eff.0000.0000.0001.0000', '47.0200.5eff.0000.0000.0001.0000.00', '39.752f.01', 'AB'],
                       ('00', '00.00', '49', '49.0001', '49.0001.00', '49.0002', 'ff')),
    'Ip6Zone': Type(zone, show_zone, 'Invalid Ip6Zone', ['eth0', '1', '007', '2147483647', '2147483648', '0', '', '..', 'a]b', 'a%b',
                    'fifteen-octets-', 'sixteen-octets-x', '1a'], ('a', 'eth0', '1', '2')),
    'Ip6AndPort': Type(and_port6, show_port6, 'Invalid Ip6AndPort', PORT6, ('[::]:0', '[::]:1', '[::1]:0', '[fe80::1]:1',
                       '[fe80::1%a]:1', '[fe80::1%1]:1')),
    'IpGenAndPort': Type(and_port, lambda v: show_port6(v) if len(v[0]) == 16 else '%s:%d' % (show4(v[0]), v[1]),
                         'Invalid IpGenAndPort', PORT4 + PORT6, ('0.0.0.0:0', '10.0.0.1:9', '10.0.0.2:1', '[::]:0', '[::1]:0'),
                         by_family),
}


# Predicates, each of an address as a number.

def within(*prefixes):
    nets = [ipaddress.ip_network(p) for p in prefixes]
    return lambda n: any(int(net[0]) <= n <= int(net[-1]) for net in nets)


def bits_set(*addresses):
    return lambda n: any(n & int(ipaddress.ip_address(a)) == int(ipaddress.ip_address(a)) for a in addresses)


ALL = 2**32 - 1
HOLDS4 = {'Zero': lambda n: n == 0, 'Any': lambda n: n == 0, 'Unspecified': lambda n: n == 0, 'ThisNetwork': within('0.0.0.0/8'),
          'Multicast': within('224.0.0.0/4'), 'ReservedMulticast': within('224.0.0.0/24'),
          'LinkLocalMulticast': within('224.0.0.0/24'), 'PimRouters': within('224.0.0.13'),
          'RoutableMulticast': lambda n: within('224.0.0.0/4')(n) and not within('224.0.0.0/24')(n),
          'Unicast': lambda n: not within('224.0.0.0/4', '255.255.255.255')(n), 'Broadcast': lambda n: n == ALL,
          'Loopback': within('127.0.0.0/8'), 'LoopbackBase': within('127.0.0.0'), 'LinkLocal': within('169.254.0.0/16'),
          'LinkLocalUnicast': within('169.254.0.0/16'), 'Reserved': lambda n: within('240.0.0.0/4')(n) and n != ALL,
          'Private': bits_set('10.0.0.0', '172.16.0.0', '192.168.0.0')}


def scope6(*scopes):
    return lambda n: n >> 120 == 0xff and (n >> 112 & 15) in scopes


def none(n):
    return False


HOLDS6 = {'Zero': lambda n: n == 0, 'Unspecified': lambda n: n == 0, 'Loopback': within('::1'), 'LoopbackBase': none,
          'Multicast': within('ff00::/8'), 'Unicast': lambda n: not within('ff00::/8')(n), 'LinkLocalUnicast': within('fe80::/64'),
          'LinkLocalUnicast2': within('fe80::/10'), 'LinkLocalMulticast': scope6(2),
          'LinkLocal': lambda n: within('fe80::/64')(n) or scope6(2)(n), 'PimRouters': within('ff02::d'),
          'GlobalUnicast': lambda n: not within('ff00::/8', '::/127', 'fe80::/10')(n), 'RoutableMulticast': scope6(*range(4, 16)),
          'SiteLocal': within('fec0::/10'), 'UniqueLocal': within('fc00::/7'), 'V4MappedV6': within('::ffff:0:0/96')}
ONLY4 = ('Any', 'Reserved', 'ThisNetwork', 'Broadcast')
BOTH = ('Unicast', 'Multicast', 'LinkLocalUnicast', 'LinkLocal', 'Loopback', 'LoopbackBase', 'Unspecified', 'PimRouters',
        'RoutableMulticast', 'LinkLocalMulticast')
HOLDS = {
    'EthAddr': {'Broadcast': lambda n: n == 2**48 - 1, 'Unicast': lambda n: not n >> 40 & 1,
                'Multicast': lambda n: n >> 40 & 1 and n != 2**48 - 1, 'Ip6Multicast': lambda n: n >> 32 == 0x3333,
                'Ip4LinkLocalMulticast': lambda n: 0x01005e000000 <= n <= 0x01005e0000ff,
                'IEEELinkConstrained': lambda n: 0x0180c2000000 <= n <= 0x0180c200000f or n == 0x01000ccccccd},
    'IpAddr': HOLDS4,
    'Ip6Addr': HOLDS6,
}
EDGES = {
    'EthAddr': ['ff:ff:ff:ff:ff:ff', 'ff:ff:ff:ff:ff:fe', 'fe:ff:ff:ff:ff:ff', '0:0:0:0:0:0', '01:00:5e:00:00:00',
                '01:00:5e:00:00:ff', '01:00:5e:00:01:00', '01:00:5f:00:00:00', '01:80:c2:00:00:00', '01:80:c2:00:00:0f',
                '01:80:c2:00:00:10', '01:80:c1:ff:ff:ff', '01:00:0c:cc:cc:cd', '01:00:0c:cc:cc:cc', '33:33:0:0:0:1', '33:34:0:0:0:1'],
    'IpAddr': ['0.0.0.0/8', '224.0.0.0/4', '224.0.0.0/24', '224.0.0.13', '255.255.255.255', '127.0.0.0/8', '127.0.0.0',
               '169.254.0.0/16', '240.0.0.0/4', '10.0.0.0/8', '11.0.0.0/8', '42.0.0.1', '172.16.0.0/12', '172.48.0.1', '172.15.0.1',
               '172.32.0.1', '192.168.0.0/16', '192.169.0.0/16', '198.51.100.1'],
    'Ip6Addr': ['::', '::1', '::2', '::/64', 'fe80::/64', 'fe80::/10', 'ff00::/8', 'ff02::d', 'ff02::/16', 'ff32::1', 'ff03::/16',
                'ff04::/16', 'ff05::1', 'fec0::/10', 'fc00::/7', '::ffff:0:0/96', '2001:db8::1'],
}


def edges(texts):
    """The first and last addresses of prefixes, and their neighbours."""
    for text in texts:
        net = ipaddress.ip_network(text)
        for n in (int(net[0]) - 1, int(net[0]), int(net[-1]), int(net[-1]) + 1):
            if 0 <= n < 1 << net.max_prefixlen:
                yield str(type(net[0])(n))


def print_predicates():
    for name, predicates in HOLDS.items():
        for text in EDGES[name] if name == 'EthAddr' else dict.fromkeys(edges(EDGES[name])):
            octets = TYPES[name].read(Text(text))
            holding = [p for p, holds in predicates.items() if holds(number_of(octets))]
            print('holds', name, text, *holding, sep='\t')
            if name == 'EthAddr':
                continue
            both = [p for p in holding if p in BOTH or name == 'IpAddr' and p in ONLY4]
            both += ['V4LinkLocal' if name == 'IpAddr' else 'V6LinkLocal'] if 'LinkLocal' in holding else []
            print('holds', 'IpGenAddr', text, *both, sep='\t')


# Hashes, and the octets of the attribute log.

def mix(key):
    key = (~key + (key << 15)) % 2**32
    key ^= key >> 12
    key = (key + (key << 2)) % 2**32
    key ^= key >> 4
    key = key * 2057 % 2**32
    return key ^ key >> 16


def seeded(seed, *words):
    def rotated(word, by):
        return (word << by | word >> 32 - by) % 2**32
    state = seed
    for word in words:
        word = rotated(word * 0xcc9e2d51 % 2**32, 15) * 0x1b873593 % 2**32
        state = (rotated(state ^ word, 13) * 5 + 0xe6546b64) % 2**32
    h = state ^ len(words)
    h = (h ^ h >> 16) * 0x85ebca6b % 2**32
    h = (h ^ h >> 13) * 0xc2b2ae35 % 2**32
    return h ^ h >> 16


def words(octets, size, order='big'):
    return [int.from_bytes(bytes(octets[i:i + size]), order) for i in range(0, len(octets), size)]


def hash_of(octets):
    """Of an address alone, by how long it is."""
    if len(octets) == 6:
        a, b, c = words(octets, 2)
        return mix((a ^ b) << 16 | c)
    if len(octets) == 4:
        return mix(int.from_bytes(bytes(octets), 'little'))
    h = 0
    for word in words(octets, 4):
        h = mix(word ^ h)
    return h


def stored(octets):
    return tuple(octets) + (0,) * (16 - len(octets))


def family_of(octets):
    return 1 if len(octets) == 4 else 2


def octets_of(number, size=4):
    return tuple(number.to_bytes(size, 'big'))


def fields_of(name, value):
    """What the seeded hash takes, and the octets of the log."""
    if name == 'EthAddr':
        return words(value, 2, 'little'), value
    if name == 'IpAddr':
        return [int.from_bytes(bytes(value), 'little')], value
    if name == 'Ip6Addr':
        return words(value, 4), value
    if name == 'EthAddrWithMask':
        return [hash_of(value[0]), hash_of(value[1])], value[0] + value[1]
    if name == 'IpGenAddr':
        return [family_of(value), hash_of(stored(value))], octets_of(family_of(value)) + stored(value)
    address, number = value
    if name == 'IpGenPrefix':
        return ([family_of(address), hash_of(stored(address)), number],
                octets_of(family_of(address)) + stored(address) + octets_of(number))
    return [hash_of(address), number], address + octets_of(number, 2 if name == 'IpAndPort' else 4)


def print_bits():
    for name in ('EthAddr', 'IpAddr', 'Ip6Addr', 'EthAddrWithMask', 'IpGenAddr', 'IpGenPrefix', 'Prefix', 'IpAddrWithMask',
                 'IpAddrWithFullMask', 'IpAndPort', 'Ip6Prefix', 'Ip6AddrWithMask'):
        for text in list(TYPES[name].order)[:12] + [t for t in TYPES[name].seeds[:12] if not of_a_maker(t)]:
            t = Text(text)
            try:
                value = TYPES[name].read(t)
            except Refused:
                continue
            if t.rest():
                continue
            taken, octets = fields_of(name, value)
            unseeded = hash_of(value) if name in ('EthAddr', 'IpAddr', 'Ip6Addr') else seeded(0, *taken)
            print('bits', name, escaped(text), unseeded, seeded(5, *taken), bytes(octets).hex(), sep='\t')


def escaped(text):
    return ''.join(c if ' ' <= c <= '~' and c != '\\' else '\\x%02x' % ord(c) for c in text)


def changed(rng, text):
    """The text with one to three small changes."""
    for _ in range(rng.randint(1, 3)):
        at = rng.randrange(len(text) + 1)
        c = rng.choice('0019af:./-%[] gF\0\xb2' + text)
        text = rng.choice((text[:at] + c + text[at:], text[:at] + c + text[at + 1:], text[:at] + text[at + 1:],
                           text[:at] + text[at:at + 3] + text[at:]))
    return text


def check_by_ipaddress(type_, text, octets):
    """What ipaddress reads, we read alike; what we read and it does not has zeros in front or a gap of no groups."""
    try:
        theirs = (ipaddress.IPv4Address if type_ == 'IpAddr' else ipaddress.IPv6Address)(text)
    except ValueError:
        tail = re.sub(r'(?<![0-9a-fA-F])0+(?=[0-9])', '', text)
        groups = [g for g in re.split('::?', text) if g]
        assert octets is None or tail != text or len(groups) + ('.' in text) == 8, text
        return
    if '%' not in text:
        assert octets == tuple(theirs.packed), text
        if octets is not None and theirs.version == 6 and theirs.ipv4_mapped is None:
            assert show6(octets) == theirs.compressed


def of_a_maker(text):
    """Whether the text shows an Ethernet address that is neither local, a group nor one for documentation."""
    for found in re.findall(r'(?=\b((?:[0-9a-f]{2}:){5}[0-9a-f]{2}|[0-9a-f]{4}\.[0-9a-f]{4}\.[0-9a-f]{4})\b)', text.lower()):
        digits = re.sub('[^0-9a-f]', '', found)
        if not int(digits[:2], 16) & 3 and not digits.startswith(('000000', '00005e', '001122', '0001', '00ff')):
            return True
    return False


def main():
    rng = random.Random(20261121)
    for name, type_ in TYPES.items():
        texts = list(dict.fromkeys(type_.seeds))
        good = [t for t in texts + list(type_.order) if t]
        texts += [changed(rng, rng.choice(good)) for _ in range(type_.count)]
        for text in dict.fromkeys(texts):
            t, canonical, message, octets = Text(text), '', '', None
            try:
                value = type_.read(t)
                canonical = type_.show(value)
                if t.rest():
                    message = type_.trailing
                else:
                    octets = value
            except Refused as refusal:
                t.at, message = '-', str(refusal)
            if of_a_maker(text) or of_a_maker(canonical):
                continue
            if name in ('IpAddr', 'Ip6Addr'):
                check_by_ipaddress(name, text, octets)
            print('read', name, escaped(text), t.at, escaped(canonical), message, sep='\t')
        ordered = sorted({type_.read(Text(text)) for text in type_.order}, key=type_.key)
        print('order', name, *(escaped(type_.show(value)) for value in ordered), sep='\t')
    print_predicates()
    print_bits()


if __name__ == '__main__':
    main()
