"""nginx on free ports of 127.0.0.1, with its files in memory."""

import http.client
import os
import shutil
import socket
import subprocess
import tempfile
import time

MIB = 1 << 20

CONFIGURATION = """
daemon off;
master_process off;
pid nginx.pid;
error_log error.log;
worker_rlimit_nofile 8192;
events {{ worker_connections 4096; }}
http {{
  access_log off;
  sendfile on;
  keepalive_timeout 600s;
  keepalive_requests 1000000;
  default_type application/octet-stream;
  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi; uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  server {{
    listen 127.0.0.1:{plain} backlog=1024;
    listen 127.0.0.1:{secure} ssl backlog=1024;
    ssl_certificate cert/cert.pem;
    ssl_certificate_key cert/key.pem;
    root files;
    location /limited/ {{ alias files/; limit_rate 20000000; }}
    location = /status {{ stub_status; }}
  }}
}}
"""


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """Runs while the with block does."""

    def __init__(self, sizes):
        """sizes: the files to serve, bytes by name."""
        self._sizes = sizes
        shared = "/dev/shm"
        self.folder = tempfile.mkdtemp(prefix="bench-", dir=shared if os.access(shared, os.W_OK) else None)
        self._process = None
        self._status = None

    def __enter__(self):
        try:
            self._make_files()
            self._start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self._process:
            self._process.terminate()
            self._process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.folder, name)

    def file(self, name):
        return self.path("files/" + name)

    @property
    def trusted(self):
        return self.path("trusted")

    @property
    def pid(self):
        return self._process.pid

    def url(self, name):
        return "http://127.0.0.1:%d/%s" % (self._plain, name)

    def secure_url(self, name):
        return "https://127.0.0.1:%d/%s" % (self._secure, name)

    def connections(self):
        """Connections accepted so far. Asks on one connection, which counts once."""
        self._status.request("GET", "/status")
        return int(self._status.getresponse().read().split()[7])

    def pin(self, cores):
        os.sched_setaffinity(self.pid, cores)

    def _make_files(self):
        for name in ("files", "cert", "trusted"):
            os.mkdir(self.path(name))
        piece = os.urandom(MIB)
        for name, size in self._sizes.items():
            with open(self.file(name), "wb") as file:
                for at in range(0, size, MIB):
                    file.write(piece[: min(MIB, size - at)])
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
             "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", self.path("cert/key.pem"),
             "-out", self.path("cert/cert.pem")], check=True, capture_output=True)
        shutil.copy(self.path("cert/cert.pem"), self.path("trusted/cert.pem"))

    def _start(self):
        program = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin")
        if not program:
            raise RuntimeError("nginx is not installed")
        # Another program may take a port between its choice and the start: then others are tried.
        for _ in range(10):
            self._plain, self._secure = free_port(), free_port()
            with open(self.path("nginx.conf"), "w") as file:
                file.write(CONFIGURATION.format(plain=self._plain, secure=self._secure))
            with open(self.path("stderr.log"), "wb") as log:
                self._process = subprocess.Popen(
                    [program, "-p", self.folder + "/", "-c", self.path("nginx.conf"), "-e", self.path("error.log")],
                    stdout=log, stderr=log)
            if self._answers():
                return
        with open(self.path("error.log")) as log:
            raise RuntimeError("nginx does not start: " + log.read())

    def _answers(self):
        deadline = time.monotonic() + 30
        while self._process.poll() is None and time.monotonic() < deadline:
            try:
                self._status = http.client.HTTPConnection("127.0.0.1", self._plain, timeout=60)
                self.connections()
                return True
            except (OSError, http.client.HTTPException, ValueError, IndexError):  # or it is not ours
                time.sleep(0.02)
        if self._process.poll() is None:
            self._process.kill()
        self._process.wait()
        return False
