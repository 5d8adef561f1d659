#!/usr/bin/env python3
"""Runs the host's php-cgi for the php-cgi.exe stand-in of the Windows test
runs under wine (see php_standin.cpp for the wire format).

    php_relay.py PORT_FILE [PHP_CGI]

Listens on a free loopback port and writes "PORT KEY" to PORT_FILE; a
connection that does not open with KEY is dropped. Each connection is one
interpreter, run with exactly the environment and arguments the stand-in
received; Windows paths are turned into the host's paths only where PHP opens
a file by them. A stand-in started with "-b PIPE" gets a FastCGI interpreter
listening on a Unix-domain socket of its own, and connections that name that
worker are carried to it byte for byte. An interpreter is killed when its
stand-in's connection ends, so none outlives a test. Stops on SIGTERM.
"""
import os
import secrets
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

# Variables whose values PHP opens as files or directories.
PATH_VARS = {"SCRIPT_FILENAME", "PATH_TRANSLATED", "DOCUMENT_ROOT", "PHPRC"}
LIST_VARS = {"PHP_INI_SCAN_DIR"}  # ';'-separated lists of directories


def drive_root(letter):
    prefix = os.environ.get("WINEPREFIX") or os.path.expanduser("~/.wine")
    return os.path.realpath(os.path.join(prefix, "dosdevices", letter.lower() + ":"))


def host_path(value):
    """C:\\a\\b -> the host's path of that file; other values unchanged."""
    if len(value) >= 3 and value[0].isalpha() and value[1] == ":" and value[2] in "\\/":
        root = drive_root(value[0])
        return os.path.join(root, value[3:].replace("\\", "/"))
    return value


def host_env(entries):
    env = {}
    for entry in entries:
        # Wine's per-drive directories ("=C:=C:\\...") mean nothing here.
        if entry.startswith("="):
            continue
        name, _, value = entry.partition("=")
        if name in PATH_VARS:
            value = host_path(value)
        elif name in LIST_VARS:
            value = ":".join(host_path(v) for v in value.split(";"))
        env[name] = value
    return env


def host_args(args):
    out = []
    for a in args:
        if a.startswith("-d") and "=" in a:
            name, _, value = a.partition("=")
            out.append(name + "=" + host_path(value))
        else:
            out.append(host_path(a))
    return out


FCGI_PARAMS = 4


def fcgi_pairs(data):
    """FastCGI name-value pairs, decoded."""
    pairs, pos = [], 0

    def length():
        nonlocal pos
        n = data[pos]
        if n < 128:
            pos += 1
            return n
        n = struct.unpack(">I", data[pos:pos + 4])[0] & 0x7FFFFFFF
        pos += 4
        return n
    while pos < len(data):
        name_len = length()
        value_len = length()
        name = data[pos:pos + name_len]
        pos += name_len
        pairs.append((name, data[pos:pos + value_len]))
        pos += value_len
    return pairs


def fcgi_encode(pairs):
    out = b""
    for name, value in pairs:
        for n in (len(name), len(value)):
            out += bytes([n]) if n < 128 else struct.pack(">I", n | 0x80000000)
        out += name + value
    return out


def fcgi_records(kind, request_id, content):
    out = b""
    for at in range(0, len(content), 65535):
        piece = content[at:at + 65535]
        out += struct.pack(">BBHHBB", 1, kind, request_id, len(piece), 0, 0) + piece
    return out + struct.pack(">BBHHBB", 1, kind, request_id, 0, 0, 0)


class HostParams:
    """Rewrites a FastCGI request stream so that its variables carry host
    paths; fed the bytes as they come, returns what can go on."""

    def __init__(self):
        self.buf, self.params = b"", b""

    def __call__(self, data):
        self.buf += data
        out = b""
        while len(self.buf) >= 8:
            _, kind, request_id, n, pad, _ = struct.unpack(">BBHHBB", self.buf[:8])
            if len(self.buf) < 8 + n + pad:
                break
            record, self.buf = self.buf[:8 + n + pad], self.buf[8 + n + pad:]
            if kind != FCGI_PARAMS:
                out += record
            elif n:
                self.params += record[8:8 + n]
            else:
                entries = [k.decode("latin-1") + "=" + v.decode("latin-1") for k, v in fcgi_pairs(self.params)]
                pairs = [(k.encode("latin-1"), v.encode("latin-1")) for k, v in host_env(entries).items()]
                out += fcgi_records(FCGI_PARAMS, request_id, fcgi_encode(pairs))
                self.params = b""
        return out


def copy_stream(src, dst, rewrite=lambda data: data):
    """Until src ends; then dst learns that nothing more comes."""
    try:
        while True:
            data = src.recv(65536)
            if not data:
                break
            dst.sendall(rewrite(data))
    except OSError:
        pass
    try:
        dst.shutdown(socket.SHUT_WR)
    except OSError:
        pass


class Connection:
    workers = {}  # name -> socket path of a FastCGI interpreter
    workers_lock = threading.Lock()

    def __init__(self, sock, key, php):
        self.sock = sock
        self.key = key
        self.php = php
        self.send_lock = threading.Lock()

    def recv_exact(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                raise EOFError
            data += chunk
        return data

    def frame(self):
        head = self.recv_exact(5)
        n = struct.unpack("<I", head[1:])[0]
        return chr(head[0]), self.recv_exact(n) if n else b""

    def send(self, kind, data):
        with self.send_lock:
            self.sock.sendall(kind.encode() + struct.pack("<I", len(data)) + data)

    def header(self):
        kind, key = self.frame()
        if kind != "k" or key.decode(errors="replace") != self.key:
            raise EOFError
        args, env, cwd, worker = [], [], None, None
        while True:
            kind, data = self.frame()
            text = data.decode("latin-1")
            if kind == "a":
                args.append(text)
            elif kind == "v":
                env.append(text)
            elif kind == "d":
                cwd = host_path(text)
            elif kind == "w":
                worker = text
            elif kind == "g":
                return args, env, cwd, worker
            else:
                raise EOFError

    def pump_output(self, stream, kind):
        try:
            while True:
                data = stream.read1(65536)
                if not data:
                    break
                self.send(kind, data)
        except OSError:
            pass

    def pump_input(self, proc):
        """Standard input until its end; then a closed connection means the
        stand-in died (killed on a time-out), and so must the interpreter."""
        try:
            while True:
                kind, data = self.frame()
                if kind == "i":
                    try:
                        proc.stdin.write(data)
                        proc.stdin.flush()
                    except OSError:
                        pass  # PHP need not read all of its input
                elif kind == "I":
                    proc.stdin.close()
        except (EOFError, OSError):
            pass
        if proc.poll() is None:
            proc.kill()

    def serve(self):
        args, env, cwd, worker = self.header()
        if worker is not None:
            return self.carry(worker)
        if cwd and not os.path.isdir(cwd):
            cwd = None
        if "-b" in args[1:-1]:
            return self.serve_worker(args, env, cwd)
        cmd = [self.php] + host_args(args[1:])
        proc = subprocess.Popen(cmd, env=host_env(env), cwd=cwd, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        threading.Thread(target=self.pump_input, args=(proc,), daemon=True).start()
        err = threading.Thread(target=self.pump_output, args=(proc.stderr, "e"), daemon=True)
        err.start()
        self.pump_output(proc.stdout, "o")
        err.join()
        code = proc.wait()
        self.send("x", struct.pack("<I", code if code >= 0 else 128 - code))

    def serve_worker(self, args, env, cwd):
        """A FastCGI interpreter on a socket of its own, for as long as the
        stand-in's connection lasts."""
        tmp = tempfile.mkdtemp(prefix="lumetta-relay-")
        path = os.path.join(tmp, "fcgi")
        args = list(args)
        args[args.index("-b", 1) + 1] = path
        proc = subprocess.Popen([self.php] + host_args(args[1:]), env=host_env(env), cwd=cwd,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        name = os.path.basename(tmp)
        try:
            err = threading.Thread(target=self.pump_output, args=(proc.stderr, "e"), daemon=True)
            err.start()
            deadline = time.monotonic() + 10
            while not os.path.exists(path) and proc.poll() is None and time.monotonic() < deadline:
                time.sleep(0.01)
            if proc.poll() is None:
                with Connection.workers_lock:
                    Connection.workers[name] = path
                self.send("r", name.encode())
                threading.Thread(target=self.pump_input, args=(proc,), daemon=True).start()
            code = proc.wait()
            err.join()
            self.send("x", struct.pack("<I", code if code >= 0 else 128 - code))
        finally:
            if proc.poll() is None:
                proc.kill()
            with Connection.workers_lock:
                Connection.workers.pop(name, None)
            for f in os.listdir(tmp):
                os.unlink(os.path.join(tmp, f))
            os.rmdir(tmp)

    def carry(self, worker):
        """One FastCGI connection, byte for byte both ways."""
        with Connection.workers_lock:
            path = Connection.workers.get(worker)
        if path is None:
            return
        unix = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            unix.connect(path)
        except OSError:
            unix.close()
            return
        up = threading.Thread(target=copy_stream, args=(self.sock, unix, HostParams()), daemon=True)
        up.start()
        copy_stream(unix, self.sock)
        up.join()
        unix.close()

    def run(self):
        try:
            self.serve()
        except (EOFError, OSError):
            pass
        finally:
            self.sock.close()


def main():
    port_file = sys.argv[1]
    php = sys.argv[2] if len(sys.argv) > 2 else "/usr/bin/php-cgi"
    key = secrets.token_hex(16)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.bind(("127.0.0.1", 0))
    listener.listen(128)
    tmp = port_file + ".tmp"
    with open(tmp, "w") as f:
        f.write("%d %s\n" % (listener.getsockname()[1], key))
    os.replace(tmp, port_file)
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    while True:
        sock, _ = listener.accept()
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=Connection(sock, key, php).run, daemon=True).start()


if __name__ == "__main__":
    main()
