#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What Python's ipaddress makes of prefixes, addresses and sets of them, for the tests to compare.

Run it again when rows are added:  tests/value/reckoning.py >tests/value/reckoning.tsv
    prefix P FIRST LAST COUNT HOSTS BROADCAST NEXT PREVIOUS SUPERNET LEN SUBNETS...
    step A N SUM DIFFERENCE      A + N and A - N; "-" stands for nothing, here and above
    distance A B N
    contains P Q YES
    summary P,P,... S,S,...
    range FIRST LAST S,S,...
"""
import ipaddress as ip
import random

rng = random.Random(14)


def number(bits):
    """Long runs of ones and zeros, so that edges are met."""
    n = rng.getrandbits(bits)
    for _ in range(rng.randint(0, 2)):
        n &= ~0 << rng.randint(0, bits)
        n |= (1 << rng.randint(0, bits // 2)) - 1 if rng.random() < .3 else 0
    return n & ((1 << bits) - 1) if rng.random() < .9 else rng.choice((0, (1 << bits) - 1))


def network(cls, bits, shortest=0):
    length = rng.randint(shortest, bits)
    return cls((number(bits) >> (bits - length) << (bits - length), length))


def neighbour(net, step):
    at = int(net[0]) + step * net.num_addresses
    return type(net)((at, net.prefixlen)) if 0 <= at < 1 << net.max_prefixlen else '-'


def hosts(net):
    open_ = net.max_prefixlen - net.prefixlen
    return net.num_addresses - (0 if open_ < 2 else 2 if net.version == 4 else 1)


def row(*fields):
    print(*(','.join(map(str, f)) if isinstance(f, list) else f for f in fields), sep='\t')


for address, net_of, bits in (ip.IPv4Address, ip.IPv4Network, 32), (ip.IPv6Address, ip.IPv6Network, 128):
    for round_ in range(60):
        net = network(net_of, bits) if round_ else net_of((0, 0))
        new = min(bits, net.prefixlen + rng.randint(0, 3))
        broadcast = net[-1] if bits == 32 and net.prefixlen < 31 else '-'
        if 0 < bits - net.prefixlen < 12:  # counted by walking, which checks the formula
            assert hosts(net) == len(list(net.hosts()))
        count = min(net.num_addresses, 2**128 - 1)
        row('prefix', net, net[0], net[-1], count, hosts(net), broadcast, neighbour(net, 1), neighbour(net, -1),
            net.supernet() if net.prefixlen else '-', new, *net.subnets(new_prefix=new))
        a, n = address(number(bits)), rng.choice((0, 1, 255, rng.getrandbits(bits), 2**bits - 1))
        results = [address(v) if 0 <= v < 1 << bits else '-' for v in (int(a) + n, int(a) - n)]
        row('step', a, n, *results)
        b = address(number(bits))
        row('distance', a, b, abs(int(a) - int(b)))
        other = rng.choice((network(net_of, bits), net.supernet(prefixlen_diff=rng.randint(0, net.prefixlen)),
                            rng.choice(list(net.subnets(new_prefix=new)))))
        row('contains', net, other, int(other.subnet_of(net)))
    for _ in range(40):
        base = number(bits) >> 12 << 12
        few = [net_of((base >> 12 << 12 | rng.getrandbits(12) >> o << o, bits - o)) for o in
               (rng.randint(0, 8) for _ in range(rng.randint(0, 40)))]
        few += [network(net_of, bits) for _ in range(rng.randint(0, 3))]
        row('summary', few, list(ip.collapse_addresses(few)))
        first, last = sorted((address(number(bits)), address(number(bits))))
        row('range', first, last, list(ip.summarize_address_range(first, last)))
