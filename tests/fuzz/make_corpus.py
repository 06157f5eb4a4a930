#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (corpus/<target>/), in the input
formats described at the top of each <target>_fuzz.cpp. Run from anywhere."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
START = 1711846800  # 2024-03-31 01:00:00 UTC, the hour the clocks go forward in Europe


def save(target, name, data):
    os.makedirs(os.path.join(HERE, 'corpus', target), exist_ok=True)
    with open(os.path.join(HERE, 'corpus', target, name), 'wb') as f:
        f.write(data)


# datagram: opcodes; the code index of opcode 1 counts in the target's table
CODE = {'config': 1, 'link': 2, 'time': 3, 'reset': 4, 'stat': 5, 'wake': 6, 'dump': 7, 'debug': 8,
        'lists': 240, 'minflash': 241, 'hdayflash': 242, 'rawflash': 243}
METER = ['traffic_on', 'volcontrl', 'contrl_type', 'volume_monthly_limit', 'round_up_volume', 'timecontrl',
         'conntime_monthly_limit', 'day', 'hour', 'min', 'ampm_sel', 'counter', 'mark', 'led_on', 'block_on']


def coded(code, body=b''):
    return bytes([1, CODE[code], len(body)]) + body


def sim(now, tx, rx, msg=1):
    return struct.pack('<BIQQB', 2, now & 0xFFFFFFFF, tx, rx, msg)


def step(seconds, tx_kb, rx_kb, times=1):
    return struct.pack('<BHHH', 3, seconds, tx_kb, rx_kb) * times


def store(obj, field, value):
    return bytes([4, obj, field, len(value)]) + value


def meter(name, value):
    return store(0, METER.index(name), value.encode())


save('datagram', 'day', bytes([0]) + sim(START, 0, 0) + step(60, 100, 900, 40) + step(43200, 0, 0) +
     step(60, 5, 50, 10) + coded('dump') + coded('lists'))
save('datagram', 'limit', bytes([1]) + meter('contrl_type', 'Download only') +
     meter('volume_monthly_limit', '1') + meter('mark', '1') + meter('block_on', 'true') +
     meter('led_on', 'true') + sim(START, 0, 0) + coded('config') + step(60, 100, 400, 6) +
     coded('reset') + step(60, 10, 10, 3) + coded('stat'))
save('datagram', 'ppp_time', bytes([2]) + store(1, 0, b'PPPoE') + meter('timecontrl', 'true') +
     meter('conntime_monthly_limit', '1') + meter('mark', '1') + meter('round_up_volume', '5000') +
     sim(START, 0, 0) + coded('link') + step(600, 1, 1, 8) + store(1, 0, b'DHCP') + coded('link') +
     step(60, 1, 1, 2))
save('datagram', 'edges', bytes([3]) + sim(0x7FFFFF00, 2**64 - 5000, 2**64 - 100000) + step(60, 9, 9, 5) +
     sim(-0x80000000 + 30, 5, 5) + step(60, 1, 1, 3) + sim(0x7FFFFFFF, 0, 0) + step(1, 0, 0) +
     sim(START, 2**63, 2**63, 0) + step(43200, 65535, 65535, 4))
save('datagram', 'unsynchronised', bytes([4]) + store(2, 0, b'Unsynchronized') + bytes([6]) +
     struct.pack('<I', 0xFFFFFF00) + coded('wake') + coded('stat') + store(2, 0, b'Synchronized') +
     store(2, 1, b'UTC0') + coded('wake') + bytes([5]) + struct.pack('<i', START + 86400) + coded('time'))
save('datagram', 'raw', bytes([5]) + coded('debug', struct.pack('<IB', 5182, 0)) + coded('minflash') +
     coded('hdayflash') + coded('rawflash') + bytes([0, 7]) + b'\x2d\xa5\x01\x00\x00\x00\x00' +
     bytes([0, 12]) + struct.pack('<HHHH', 0xA52D, 1, 5, 0) + b'hb\0x' + coded('wake') + bytes([7]) +
     struct.pack('<QQ', 1, 2**64 - 1) + coded('link'))

# rebuild: a header, then page entries (page, kind, record)


def rebuild(geometry, clock, reset, manual, actions, pages, bad=0, zone=0):
    head = struct.pack('<BQiB3BBiB', geometry, bad, clock, zone, *reset, manual[0], manual[1], actions)
    return head + b''.join(struct.pack('<HBiiQQiI', *p) for p in pages)


def minutes(first_page, count, start_offset):  # relative records of one minute each (kind 4)
    return [(first_page + i, 4, start_offset + 60 * i, start_offset + 60 * (i + 1), 1000 * i, 5000 * i, 60, 0)
            for i in range(count)]


HDAY0 = 2304  # the half-day ring's first page with 64 pages per block
save('rebuild', 'empty', rebuild(2, START, (1, 0, 0), (0, 0), 0, []))
save('rebuild', 'history', rebuild(2, START, (1, 0, 0), (0, 0), 0x07, minutes(0, 30, -1800) + [
    (HDAY0 + i, 4, -43200 * (i + 2), -43200 * (i + 1), 10**9, 10**10, 43200, 0) for i in range(20)]))
save('rebuild', 'wrapped_ring', rebuild(2, START, (31, 23, 59), (3, -3600), 0x3B,
     minutes(2300, 4, -3600) + minutes(0, 64, -3300) + [(64, 2, 0, 60, 1, 1, 0, 0), (65, 3, 0, 60, 1, 1, 0, 0)]))
save('rebuild', 'manual_reset', rebuild(0, START, (15, 12, 30), (3, -120), 0xB2, minutes(100, 50, -7200) +
     [(HDAY0 + 5, 4, -86400, -43200, 5, 5, 5, 7)], bad=1 << 37))
save('rebuild', 'small_blocks', rebuild(5, 0x7FFFF000, (29, 0, 0), (1, 0x7FFFFFFF), 0xB3,
     minutes(700, 40, -2400) + [(2200, 4, -43200, 0, 2**64 - 1, 2**64 - 1, -1, 0)], zone=2))

# netdev: odd first byte builds a table from numbers; even takes the rest as the file
NETDEV = (b'Inter-|   Receive                                                |  Transmit\n'
          b' face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo '
          b'colls carrier compressed\n'
          b'    lo:  1234   10    0    0    0     0          0         0   1234   10    0    0    0     0'
          b'       0          0\n'
          b'eth0.1:18446744073709551615 7 0 0 0 0 0 0 99999999999 8 0 0 0 0 0 0\n'
          b'ppp0.2: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n')
save('netdev', 'table', b'\x00' + NETDEV)
save('netdev', 'through_store', b'\x02' + NETDEV)
save('netdev', 'ppp', b'\x04' + NETDEV.replace(b'ppp0.2:', b'ppp0.2:  123 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18'))
save('netdev', 'round_trip', b'\x01\x02\x03' + bytes(range(256)))

# store: the first byte picks the object type (ascending ids: 1045 1152 1400 2700 2888 2889)
save('store', 'time', b'\x00status=Synchronized\nlocalTimeZone=CET-1CEST,M3.5.0,M10.5.0/3\nother=kept\n')
save('store', 'iface', b'\x01ifName=eth0\nisUpstream=1\nisUpstream=300\n\nno equals sign')
save('store', 'meter', b'\x04traffic_on=true\nday=31\nmark=\nmarkStatus=\\\\n\\n\\x\\')
save('store', 'statistics', b'\x05start_data_time=Sun Mar 31 03:00:00 2024\\n\ntoday_upload=1.5\n')
