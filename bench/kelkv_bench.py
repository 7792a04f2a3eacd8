#!/usr/bin/env python3
"""Measures kelkv against redis-server, in turn: `kelkv_bench.py PROGRAM` writes rows as the other benchmarks do.

Throughput is what redis-benchmark reports. How soon a GET is answered while another client walks over all keys is asked
by a client of our own: it sends at moments fixed beforehand, and counts from them. One that waits for each reply before
it sends the next would ask nothing while a server does not answer, and see one slow reply where a thousand clients do.

Daemons have one core, clients another.
"""
import csv
import json
import multiprocessing
import os
import random
import resource
import select
import socket
import statistics
import subprocess
import sys
import time

DAEMON_CORE, CLIENT_CORE = 0, 1
SAMPLES = 10
REQUESTS = 400_000  # of each kind in a sample
CLIENTS = 50
KEYS = 1_000_000
PROBE_SECONDS = 2.0
PROBE_INTERVAL = 0.001


def pin(core):
    if core < (os.cpu_count() or 1):
        os.sched_setaffinity(0, {core})


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Server:
    """A daemon on a port of its own."""

    def __init__(self, name, command, port):
        self.name, self.port = name, port
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, preexec_fn=lambda: pin(DAEMON_CORE))
        for _ in range(200):
            try:
                self.connect().close()
                return
            except OSError:
                if self.process.poll() is not None:
                    break
                time.sleep(0.05)
        self.stop()
        raise RuntimeError(f"{name} does not start")

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port))

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.terminate()
        self.process.wait()


def start_servers(kelkv):
    port = free_port()
    ours = Server("kelkv", [kelkv, "--port", str(port), "--operator-port", "0"], port)
    port = free_port()
    peer = Server("redis-server", ["redis-server", "--port", str(port), "--bind", "127.0.0.1", "--save", "",
                                   "--appendonly", "no", "--daemonize", "no"], port)
    return ours, peer


def row(name, n, ours, peer, peer_is_floor=True):
    figures = {"name": name, "n": n, "ours": ours, "floor": peer}
    if peer_is_floor:
        figures["peers"] = {"redis-server": peer}
    print(json.dumps(figures), flush=True)


# Throughput


class Load:
    """What redis-benchmark reports of a server: requests a second, by kind; and who was how busy."""

    def __init__(self, server):
        self.server, self.rates, self.daemon_cpu, self.client_busy = server, {"SET": [], "GET": []}, [], []

    def sample(self, keep):
        client_before, daemon_before, start = children_cpu(), self.server.cpu_seconds(), time.monotonic()
        report = subprocess.run(
            ["redis-benchmark", "-p", str(self.server.port), "-P", "16", "-c", str(CLIENTS), "-t", "set,get", "-n",
             str(REQUESTS), "--csv"], check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
            preexec_fn=lambda: pin(CLIENT_CORE)).stdout
        seconds = time.monotonic() - start
        if not keep:
            return
        self.client_busy.append(100 * (children_cpu() - client_before) / seconds)
        self.daemon_cpu.append(1e6 * (self.server.cpu_seconds() - daemon_before) / (2 * REQUESTS))
        for line in csv.reader(report.splitlines()):
            if line[0] in self.rates:
                self.rates[line[0]].append(float(line[1]))


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def throughput(servers):
    loads = [Load(server) for server in servers]
    for i in range(SAMPLES + 1):  # the first warms up
        for load in loads:
            load.sample(keep=i > 0)
    for kind in ("GET", "SET"):
        row(f"kelkv {kind}, requests a second", CLIENTS, *(statistics.median(load.rates[kind]) for load in loads))
    row("kelkv, CPU us a request", CLIENTS, *(statistics.median(load.daemon_cpu) for load in loads))
    row("redis-benchmark busy with kelkv / with the peer, %", CLIENTS,
        *(statistics.median(load.client_busy) for load in loads), peer_is_floor=False)


# GETs while KEYS * walks


def fill(server):
    commands = "".join(f"SET key:{i:012d} value\r\n" for i in range(KEYS)).encode()
    subprocess.run(["redis-cli", "-p", str(server.port), "--pipe"], input=commands, check=True,
                   stdout=subprocess.DEVNULL)
    with server.connect() as connection:
        connection.sendall(b"DEL key:__rand_int__\r\nDBSIZE\r\n")  # the key of redis-benchmark
        replies = connection.makefile("rb")
        replies.readline()
        size = replies.readline()
    if int(size[1:]) != KEYS:
        raise RuntimeError(f"{server.name} has {size!r} keys instead of {KEYS}")


def walk(server, walks):
    """Lists all keys again and again, and counts how often."""
    pin(CLIENT_CORE)
    buffer = bytearray(1 << 20)
    with server.connect() as connection:
        while True:
            connection.sendall(b"KEYS *\r\n")
            left = len(f"*{KEYS}\r\n") + KEYS * len("$16\r\nkey:000000000000\r\n")
            while left > 0:
                received = connection.recv_into(buffer)
                if received == 0:
                    return
                left -= received
            with walks.get_lock():
                walks.value += 1


def probe(server):
    """Milliseconds from the moment when each GET was to be sent to its reply."""
    pin(CLIENT_CORE)
    moments, latencies = random.Random(1), []
    request, reply = b"GET key:000000000007\r\n", len(b"$5\r\nvalue\r\n")
    with server.connect() as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        start = time.monotonic()
        due, sent, received = start, [], 0
        while due < start + PROBE_SECONDS or len(latencies) < len(sent):
            now = time.monotonic()
            while due <= now and due < start + PROBE_SECONDS:
                connection.sendall(request)
                sent.append(due)
                due += PROBE_INTERVAL * moments.uniform(0.5, 1.5)
            wait = max(0.0, due - now) if due < start + PROBE_SECONDS else 60.0
            if select.select([connection], [], [], wait)[0]:
                received += len(connection.recv(1 << 16))
                latencies += [1e6 * (time.monotonic() - at) for at in sent[len(latencies):received // reply]]
    return latencies


def quantile(values, q):
    return sorted(values)[round(q * (len(values) - 1))]


def probe_during_walks(server):
    walks = multiprocessing.Value("Q", 0)
    walker = multiprocessing.Process(target=walk, args=(server, walks), daemon=True)
    walker.start()
    time.sleep(0.3)
    start, before = time.monotonic(), walks.value
    latencies = probe(server)
    a_second = (walks.value - before) / (time.monotonic() - start)
    walker.terminate()
    walker.join()
    return quantile(latencies, 0.5), quantile(latencies, 0.99), a_second


def latency(servers):
    for server in servers:
        fill(server)
    samples = [[], []]
    for _ in range(SAMPLES):
        for server, of in zip(servers, samples):
            of.append(probe_during_walks(server))
    names = ("kelkv GET during KEYS *, us, p50", "kelkv GET during KEYS *, us, p99", "kelkv KEYS *, walks a second")
    for name, ours, peer in zip(names, *(map(statistics.median, zip(*of)) for of in samples)):
        row(name, KEYS, ours, peer)


def main():
    pin(CLIENT_CORE)
    servers = start_servers(sys.argv[1])
    try:
        throughput(servers)
        latency(servers)
    finally:
        for server in servers:
            server.stop()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main()
