"""The rollout server on this machine's loopback, and a proxy before it that looks at the cameras'
certificates. Both end with the process that started them, however that ends."""
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
DIES_WITH_US = ("setpriv", "--pdeathsig", "KILL")
# A word that the proxy vouches with for each certificate that it has checked: who knows it and gets
# at the server past the proxy can be any camera.
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
        # Not as arguments, which everyone can read.
        self.secrets = {"SPRING_SECURITY_USER_NAME": self.user,
                        "SPRING_SECURITY_USER_PASSWORD": "{noop}" + self.password}
        # Links to files lead to the same place; without this they say http, whatever the server speaks.
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
            self.process = subprocess.Popen([*DIES_WITH_US, *self.command], stdout=output,
                                            stdin=subprocess.DEVNULL, stderr=subprocess.STDOUT,
                                            cwd=self.folder, env={**os.environ, **self.secrets})
        wait_for_port(self.port, self.process, START_SECONDS, log)

    def stop(self) -> None:
        end(self.process)


class Proxy:
    """nginx, in a root of its own, with which all of its processes end."""

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
    # The common name alone, wherever it stands in the certificate's subject.
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
        # Only what cameras ask; each header is set here, so that none of a camera's own gets through.
        location ~ ^/[^/]+/controller/ {{
            proxy_pass {server.management_url};
            proxy_buffering off;
            proxy_set_header Host $http_host;
            # The server counts requests by address.
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
                [*DIES_WITH_US, self.scripts / "private_root", self.nginx, "-c", self.configuration,
                 "-e", self.folder / "nginx.txt"], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, start_new_session=True)
        wait_for_port(self.port, self.process, 20, log)

    def check(self, authority: Authority) -> None:
        """Without a certificate nobody gets in, and with one only as whom it names, whatever the
        headers say. The server knows the targets "check" and "other"."""
        own = authority.issue("check", "clientAuth")
        stranger = Authority(self.folder / "stranger", "stranger").issue("check", "clientAuth")
        for certificate, camera, wanted in ((own, "check", 200), (own, "other", 401),
                                            (stranger, "check", 400), (None, "check", 400)):
            got = self.ask(authority, certificate, camera)
            if got != wanted:
                raise OSError(f"with the certificate {certificate and certificate[0]} one who asks as "
                              f"{camera} gets {got}, not {wanted}")

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
    said = log.read_text(errors="replace").strip().splitlines()[-5:]
    raise OSError("\n  ".join([f"the server does not come up within {seconds} s:", *said]))


def end(process: subprocess.Popen | None) -> None:
    if process is not None:
        process.kill()
        process.wait()
