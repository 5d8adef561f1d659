#!/usr/bin/env python3
"""Runs the host's php-cgi for the php-cgi.exe stand-in of the Windows test
runs under wine (see php_standin.cpp for the wire format).

    php_relay.py PORT_FILE [PHP_CGI]

Listens on a free loopback port and writes "PORT KEY" to PORT_FILE; a
connection that does not open with KEY is dropped. Each connection is one
interpreter, run with exactly the environment and arguments the stand-in
received; Windows paths are turned into the host's paths only where PHP opens
a file by them. The interpreter is killed when its connection ends early, so
none outlives a test. Stops on SIGTERM.
"""
import os
import secrets
import signal
import socket
import struct
import subprocess
import sys
import threading

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


class Connection:
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
        args, env, cwd = [], [], None
        while True:
            kind, data = self.frame()
            text = data.decode("latin-1")
            if kind == "a":
                args.append(text)
            elif kind == "v":
                env.append(text)
            elif kind == "d":
                cwd = host_path(text)
            elif kind == "g":
                return args, env, cwd
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
        args, env, cwd = self.header()
        cmd = [self.php] + host_args(args[1:])
        if cwd and not os.path.isdir(cwd):
            cwd = None
        proc = subprocess.Popen(cmd, env=host_env(env), cwd=cwd, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        threading.Thread(target=self.pump_input, args=(proc,), daemon=True).start()
        err = threading.Thread(target=self.pump_output, args=(proc.stderr, "e"), daemon=True)
        err.start()
        self.pump_output(proc.stdout, "o")
        err.join()
        code = proc.wait()
        self.send("x", struct.pack("<I", code if code >= 0 else 128 - code))

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
