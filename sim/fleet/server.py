"""The rollout server on the loopback of this machine, and a reverse proxy that checks the cameras'
certificates. Both end when the process that started them ends, for whatever reason."""
import http.client
import os
import secrets
import socket
import ssl
import subprocess
import time
from pathlib import Path

from certificates import SERVER_NAMES, Authority

HOST = "127.0.0.1"
START_SECONDS = 300
HEAP_MIB = 384
POLL = "00:00:02"
DIES_WITH_PARENT = ("setpriv", "--pdeathsig", "KILL")
# Length of the secret that the proxy sends to the server with each request whose certificate it has checked.
# A process that knows the secret and reaches the server directly can pose as any camera.
VOUCHER_BYTES = 16


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


class Server:
    """`url` is for cameras, `management_url` for operators."""

    def __init__(self, jar: Path, folder: Path, authority: Authority, tls: bool, poll: str = POLL,
                 files: Path | None = None, password: str = ""):
        """`files`: folder of the packages, if it is not the server's own."""
        self.port, self.folder, self.poll = free_port(), folder, poll
        self.user, self.password = "admin", password or secrets.token_hex(16)
        self.management_url = self.url = f"{'https' if tls else 'http'}://{HOST}:{self.port}"
        self.command = ["java", f"-Xmx{HEAP_MIB}m", "-jar", str(jar), f"--server.address={HOST}",
                        f"--server.port={self.port}",
                        "--spring.main.allow-bean-definition-overriding=true",
                        "--spring.main.banner-mode=off", "--logging.level.root=WARN",
                        "--hawkbit.controller.minPollingTime=00:00:01",
                        f"--hawkbit.controller.pollingTime={poll}",
                        f"--org.eclipse.hawkbit.repository.file.path={files or folder / 'files'}"]
        # In the environment, because any user can read the arguments of a process.
        self.secrets = {"SPRING_SECURITY_USER_NAME": self.user,
                        "SPRING_SECURITY_USER_PASSWORD": "{noop}" + self.password}
        # Without this, the server's download links use http even if it serves https.
        self.command += ["--hawkbit.artifact.url.protocols.download-http.protocol=https",
                         "--hawkbit.artifact.url.protocols.download-http.rel=download"]
        if tls:
            store_password = secrets.token_hex(16)
            self.command += [f"--server.ssl.key-store={authority.server_store(store_password)}",
                             "--server.ssl.key-store-type=PKCS12"]
            self.secrets["SERVER_SSL_KEY_STORE_PASSWORD"] = store_password
        else:
            self.command.append("--server.forward-headers-strategy=native")
        self.process: subprocess.Popen | None = None

    def start(self) -> None:
        self.launch()
        self.wait()

    def launch(self) -> None:
        self.folder.mkdir(parents=True, exist_ok=True)
        with open(self.folder / "server.txt", "ab") as output:
            self.process = subprocess.Popen([*DIES_WITH_PARENT, *self.command], stdout=output,
                                            stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT,
                                            cwd=self.folder, env={**os.environ, **self.secrets})

    def wait(self) -> None:
        wait_for_port(self.port, self.process, START_SECONDS, self.folder / "server.txt")

    def stop(self) -> None:
        if self.process is not None:
            self.process.kill()
            self.process.wait()


class Contained:
    """A program that listens on a port, in a private root, so that all of its processes end with it."""

    START_SECONDS = 20

    def __init__(self, scripts: Path, port: int, log: Path, command: list):
        self.scripts, self.port, self.log, self.command = scripts, port, log, command
        self.process: subprocess.Popen | None = None
        self.held = -1  # read end of a pipe that all processes inside inherit; end of file when all have ended

    def start(self) -> None:
        self.launch()
        self.wait()

    def launch(self) -> None:
        self.held, inside = os.pipe()
        with open(self.log, "ab") as output:
            self.process = subprocess.Popen(
                [*DIES_WITH_PARENT, self.scripts / "private_root", *self.command], pass_fds=[inside],
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, start_new_session=True)
        os.close(inside)

    def wait(self) -> None:
        wait_for_port(self.port, self.process, self.START_SECONDS, self.log)

    def stop(self) -> None:
        """Kills all of its processes, and returns when the last one has ended."""
        if self.process is None:
            return
        self.process.kill()
        self.process.wait()
        while os.read(self.held, 1):
            pass
        os.close(self.held)
        self.process = None


class Proxy(Contained):
    """nginx in front of one or several instances of the server. With `certificates` it checks those of the
    cameras; otherwise they send tokens. Operators of several instances use `management_url`."""

    LOG_FORMAT = "$msec $status $upstream_addr|$request_uri|$request_length $bytes_sent"

    def __init__(self, nginx: Path, scripts: Path, servers: list[Server], folder: Path, authority: Authority,
                 certificates: bool, public_port: int = 0):
        """`public_port`: the port that cameras use, if it is not the proxy's own."""
        self.folder = folder
        self.voucher = secrets.token_hex(VOUCHER_BYTES) if certificates else ""
        folder.mkdir(parents=True, exist_ok=True)
        certificate, key = authority.issue("server", "serverAuth", SERVER_NAMES)
        self.configuration, self.requests = folder / "nginx.conf", folder / "requests.txt"
        super().__init__(scripts, free_port(), folder / "nginx-start.txt",
                         [nginx, "-c", self.configuration, "-e", folder / "nginx.txt"])
        public_port = public_port or self.port
        self.url = f"https://{HOST}:{public_port}"
        operators = free_port()
        self.management_url = f"https://{HOST}:{operators}" if len(servers) > 1 else servers[0].management_url
        checked = "$camera" if certificates else '""'
        check = f"ssl_client_certificate {authority.certificate};\n        ssl_verify_client on;"
        instances = "\n".join(f"        server {HOST}:{server.port} max_fails=1;" for server in servers)
        for_operators = f"""\
    server {{
        listen {HOST}:{operators} ssl;
        client_max_body_size 0;
        location /rest/ {{
            proxy_pass http://instances;
            proxy_set_header Host $http_host;
        }}
    }}
"""
        self.configuration.write_text(f"""\
daemon off;
pid /run/nginx.pid;
error_log {folder}/nginx.txt;
user root;
events {{ worker_connections 4096; }}
http {{
    log_format requests "{self.LOG_FORMAT}";
    access_log {self.requests} requests;
    ssl_certificate {certificate};
    ssl_certificate_key {key};
    client_body_temp_path /tmp/body;
    proxy_temp_path /tmp/proxy;
    fastcgi_temp_path /tmp/fastcgi;
    uwsgi_temp_path /tmp/uwsgi;
    scgi_temp_path /tmp/scgi;
    # The common name from any position of the certificate's subject.
    map $ssl_client_s_dn $camera {{
        default "";
        "~(^|,)CN=(?<name>[^,]+)" $name;
    }}
    # A request goes to another instance if the first one cannot be reached or does not answer, unless it
    # changes something and may have been carried out. Then the camera repeats it.
    upstream instances {{
{instances}
    }}
    proxy_next_upstream error timeout;
{for_operators if len(servers) > 1 else ""}\
    server {{
        listen {HOST}:{self.port} ssl;
        {check if certificates else ""}
        # Only the interface for cameras. The headers that authenticate are set here, so that a camera
        # cannot pass its own.
        location ~ ^/[^/]+/controller/ {{
            proxy_pass http://instances;
            proxy_buffering off;
            proxy_set_header Host $http_host;
            # The server limits the number of requests by address.
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_set_header X-Forwarded-Proto https;
            proxy_set_header X-Forwarded-Port {public_port};
            proxy_set_header X-Ssl-Client-Cn {checked};
            proxy_set_header X-Ssl-Issuer-Hash-1 "{self.voucher}";
            proxy_set_header X-Controller-Id {checked};
            proxy_set_header X-Authority "{self.voucher}";
        }}
        location / {{ return 404; }}
    }}
}}
""")

    def check(self, authority: Authority) -> None:
        """Checks that a camera without a certificate is rejected, and that with a certificate it can only be
        the camera that the certificate names, whatever headers it sends. The targets "check" and "other" must
        exist at the server."""
        own = authority.issue("check", "clientAuth")
        stranger = Authority(self.folder / "stranger", "stranger").issue("check", "clientAuth")
        for certificate, camera, wanted in ((own, "check", 200), (own, "other", 401),
                                            (stranger, "check", 400), (None, "check", 400)):
            got = self.ask(authority, certificate, camera)
            if got != wanted:
                raise OSError(f"with the certificate {certificate and certificate[0]} a request as "
                              f"{camera} gets status {got}, expected {wanted}")

    def ask(self, authority: Authority, certificate, camera: str) -> int:
        context = ssl.create_default_context(cafile=authority.certificate)
        if certificate:
            context.load_cert_chain(*certificate)
        connection = http.client.HTTPSConnection(HOST, self.port, context=context)
        connection.request("GET", f"/DEFAULT/controller/v1/{camera}", headers={
            "X-Ssl-Client-Cn": camera, "X-Ssl-Issuer-Hash-1": "guessed", "X-Controller-Id": camera,
            "X-Authority": "guessed"})
        return connection.getresponse().status


def listens(port: int) -> bool:
    with socket.socket() as probe:
        return probe.connect_ex((HOST, port)) == 0


def wait_for_port(port: int, process: subprocess.Popen, seconds: int, log: Path) -> None:
    until = time.monotonic() + seconds
    while process.poll() is None and time.monotonic() < until:
        if listens(port):
            return
        time.sleep(0.1)
    output = log.read_text(errors="replace").strip().splitlines()[-5:]
    raise OSError("\n  ".join([f"the server does not start within {seconds} s:", *output]))
