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

    def __init__(self, jar: Path, folder: Path, authority: Authority, tls: bool, poll: str = POLL):
        self.port, self.folder, self.poll = free_port(), folder, poll
        self.user, self.password = "admin", secrets.token_hex(16)
        self.management_url = self.url = f"{'https' if tls else 'http'}://{HOST}:{self.port}"
        self.command = ["java", f"-Xmx{HEAP_MIB}m", "-jar", str(jar), f"--server.address={HOST}",
                        f"--server.port={self.port}",
                        "--spring.main.allow-bean-definition-overriding=true",
                        "--spring.main.banner-mode=off", "--logging.level.root=WARN",
                        "--hawkbit.controller.minPollingTime=00:00:01",
                        f"--hawkbit.controller.pollingTime={poll}",
                        f"--org.eclipse.hawkbit.repository.file.path={folder / 'files'}"]
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
        self.folder.mkdir(parents=True, exist_ok=True)
        log = self.folder / "server.txt"
        with open(log, "wb") as output:
            self.process = subprocess.Popen([*DIES_WITH_PARENT, *self.command], stdout=output,
                                            stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT,
                                            cwd=self.folder, env={**os.environ, **self.secrets})
        wait_for_port(self.port, self.process, START_SECONDS, log)

    def stop(self) -> None:
        end(self.process)


class Proxy:
    """nginx in a private root, so that all of its processes end with it."""

    def __init__(self, nginx: Path, scripts: Path, server: Server, folder: Path,
                 authority: Authority):
        self.nginx, self.scripts, self.folder = nginx, scripts, folder
        self.port = free_port()
        self.voucher = secrets.token_hex(VOUCHER_BYTES)
        self.process: subprocess.Popen | None = None
        folder.mkdir(parents=True, exist_ok=True)
        certificate, key = authority.issue("server", "serverAuth", SERVER_NAMES)
        self.configuration = folder / "nginx.conf"
        self.configuration.write_text(f"""\
daemon off;
pid /run/nginx.pid;
error_log {folder}/nginx.txt;
user root;
events {{}}
http {{
    access_log off;
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
    server {{
        listen {HOST}:{self.port} ssl;
        ssl_certificate {certificate};
        ssl_certificate_key {key};
        ssl_client_certificate {authority.certificate};
        ssl_verify_client on;
        # Only the interface for cameras. The headers that authenticate are set here, so that a camera
        # cannot pass its own.
        location ~ ^/[^/]+/controller/ {{
            proxy_pass {server.management_url};
            proxy_buffering off;
            proxy_set_header Host $http_host;
            # The server limits the number of requests by address.
            proxy_set_header X-Forwarded-For $remote_addr;
            proxy_set_header X-Forwarded-Proto https;
            proxy_set_header X-Forwarded-Port {self.port};
            proxy_set_header X-Ssl-Client-Cn $camera;
            proxy_set_header X-Ssl-Issuer-Hash-1 {self.voucher};
            proxy_set_header X-Controller-Id $camera;
            proxy_set_header X-Authority {self.voucher};
        }}
        location / {{ return 404; }}
    }}
}}
""")
        server.url = f"https://{HOST}:{self.port}"

    def start(self) -> None:
        log = self.folder / "nginx-start.txt"
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                [*DIES_WITH_PARENT, self.scripts / "private_root", self.nginx, "-c", self.configuration,
                 "-e", self.folder / "nginx.txt"], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, start_new_session=True)
        wait_for_port(self.port, self.process, 20, log)

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

    def stop(self) -> None:
        end(self.process)


def wait_for_port(port: int, process: subprocess.Popen, seconds: int, log: Path) -> None:
    until = time.monotonic() + seconds
    while process.poll() is None and time.monotonic() < until:
        with socket.socket() as probe:
            if probe.connect_ex((HOST, port)) == 0:
                return
        time.sleep(0.1)
    output = log.read_text(errors="replace").strip().splitlines()[-5:]
    raise OSError("\n  ".join([f"the server does not start within {seconds} s:", *output]))


def end(process: subprocess.Popen | None) -> None:
    if process is not None:
        process.kill()
        process.wait()
