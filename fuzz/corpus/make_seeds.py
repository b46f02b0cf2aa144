#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (run from any directory; rewrites the seeds)."""
import os

HERE = os.path.dirname(os.path.abspath(__file__))


def header(target=2, version=0, connection=0, address=(0, 0, 0, 0), port=0, calling=8,
           command=0):
    head = bytes([target, version, connection, *address, port & 0xFF, port >> 8, calling,
                  command])
    return head + bytes(13)  # bytes 11 to 23 are never read


def write(target, name, data):
    folder = os.path.join(HERE, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# fuzz_launcher: control (kind | length mode << 2), read mode, cut, message.
paths = ["a.jar", "B.JAR", "c.txt", "lib.so", "d.jar", "d.jar/inner", ".", "..", "", "sub",
         "sublink", "sub/x.jar", "./a.jar", "link.jar", "dangling.jar", "missing.jar", "empty",
         "/tmp", "/nonexistent/x.jar"]
for i, path in enumerate(paths):
    write("launcher", f"load-{i:02d}", bytes([0, i % 4, 0]) + header(command=1) + path.encode())
write("launcher", "health", bytes([1, 0, 0]) + header())
write("launcher", "health-tail", bytes([1, 3, 0]) + header() + b"health_check")
write("launcher", "plain-health", bytes([2, 0, 0]) + header() + b"health_check")
write("launcher", "plain-short", bytes([2, 0, 0]) + header() + b"health_chec")
write("launcher", "heartbeat", bytes([3, 0, 0]) + header(command=11) + b"12")
write("launcher", "negative", bytes([0 | 1 << 2, 0, 1]) + header(command=1) + b"a.jar")
write("launcher", "shortened", bytes([1 | 2 << 2, 0, 13]) + header())
write("launcher", "zero", bytes([1 | 3 << 2, 0, 0]) + header())
write("launcher", "tiny", bytes([3, 0, 0, 2, 0, 0]))

# fuzz_transmitter: control (operation | negative flag << 2), cut, message.
write("transmitter", "tcp", bytes([0, 0]) + header(connection=1, address=(127, 0, 0, 1),
                                                   port=8080) + b"payload")
write("transmitter", "tls", bytes([0, 0]) + header(connection=2, address=(10, 0, 0, 7),
                                                   port=0x1F90))
write("transmitter", "tcp-then-tls", bytes([0, 0]) + header(connection=2, address=(127, 0, 0, 1),
                                                            port=8080))
write("transmitter", "zero-address", bytes([0, 0]) + header(connection=1))
write("transmitter", "max-address", bytes([0, 0]) + header(connection=1,
                                                           address=(255, 255, 255, 255),
                                                           port=65535))
write("transmitter", "unknown-type", bytes([0, 0]) + header(connection=3))
write("transmitter", "memory-cpp", bytes([0, 0]) + header(target=8, calling=8) + b"runtimes")
write("transmitter", "memory-missing", bytes([0, 0]) + header(target=5, calling=8))
write("transmitter", "memory-unknown", bytes([0, 0]) + header(target=200, calling=201))
write("transmitter", "eleven", bytes([0, 0]) + header(connection=1)[:11])
write("transmitter", "ten", bytes([1, 1]) + header(connection=1)[:11])
write("transmitter", "negative", bytes([1 | 4, 0]) + header(connection=1))
write("transmitter", "deploy-tcp", bytes([2, 1]) + header(connection=1, port=80))
write("transmitter", "deploy-memory", bytes([2, 1]) + header(target=8))
write("transmitter", "embed", bytes([3, 8, 8]) + b"/opt/runtime")

# fuzz_configs: whole files.
write("configs", "empty", b"")
write("configs", "full", b"""# settings of one installation
logging.level = all
workingDirectory = /tmp
jvm.default.runtimeName = jvm
jvm.default.channel.type = tcp
jvm.default.channel.host = 127.0.0.1
jvm.default.channel.port = 8080
jvm.default.runtimePath = /usr/lib/jvm
proxy.host = 10.0.0.1
proxy.port = 3128
proxy.username = user
proxy.password = secret
proxy.domain = corp
""")
write("configs", "bad-port", b"proxy.port = 70000\n")
write("configs", "no-equals", b"just words\n")
write("configs", "empty-key", b" = value\n")
write("configs", "blanks", b"\t key\t=\t value with = sign \r\n\n#x\n")
write("configs", "crlf", b"a = 1\r\nproxy.port = 0\r\n")

# fuzz_framing: limit selector, largest read, stream.
def frame(payload):
    return len(payload).to_bytes(4, "big") + payload

write("framing", "two-frames", bytes([16, 7]) + frame(b"hello") + frame(b""))
write("framing", "default-limit", bytes([255, 255]) + frame(bytes(range(64))))
write("framing", "oversize", bytes([1, 4]) + (1 << 20).to_bytes(4, "big") + b"x")
write("framing", "half-header", bytes([16, 1]) + b"\x00\x00")
write("framing", "half-payload", bytes([16, 3]) + (10).to_bytes(4, "big") + b"abc")
write("framing", "zero-limit", bytes([0, 2]) + frame(b"") + frame(b"a"))
