"""The operator's interface (management API) of a rollout server."""
import base64
import http.client
import json
import ssl
import time
import urllib.parse
import uuid
from pathlib import Path

TIMEOUT_SECONDS = 120
IDLE_SECONDS = 10
MOST = 500  # the server's limit for the entries of one answer
JSON = "application/json"


class Refused(Exception):
    """The server answered with an error status."""

    def __init__(self, method: str, path: str, status: int, answer: str):
        super().__init__(f"{method} {path}: {status} {answer[:300]}")
        self.status = status


class Management:
    def __init__(self, url: str, user: str, password: str, authority: Path | None):
        parts = urllib.parse.urlsplit(url)
        self.base = parts.path.rstrip("/")
        if parts.scheme == "https":
            self.connection = http.client.HTTPSConnection(
                parts.netloc, timeout=TIMEOUT_SECONDS,
                context=ssl.create_default_context(cafile=authority))
        else:
            self.connection = http.client.HTTPConnection(parts.netloc, timeout=TIMEOUT_SECONDS)
        self.used = 0.0
        name = base64.b64encode(f"{user}:{password}".encode()).decode()
        self.headers = {"Authorization": f"Basic {name}", "Accept": JSON}

    def call(self, method: str, path: str, body=None, kind: str = JSON):
        """Returns the JSON of the answer, or None if the answer has no content; whether it has depends on
        the version of the server."""
        data = body if body is None or isinstance(body, bytes) else json.dumps(body).encode()
        headers = {**self.headers, "Content-Type": kind} if data is not None else self.headers
        # The server closes idle connections, so do not reuse one that was idle for long.
        if time.monotonic() - self.used > IDLE_SECONDS:
            self.connection.close()
        try:
            self.connection.request(method, f"{self.base}/rest/v1/{path}", data, headers)
            answer = self.connection.getresponse()
            text = answer.read().decode(errors="replace")
        except (http.client.HTTPException, OSError):
            self.connection.close()  # the next call opens a new connection
            raise
        self.used = time.monotonic()
        if not 200 <= answer.status < 300:
            raise Refused(method, path, answer.status, text)
        return json.loads(text) if text else None

    def setting(self, name: str):
        return self.call("GET", f"system/configs/{name}")["value"]

    def set(self, name: str, value) -> None:
        self.call("PUT", f"system/configs/{name}", {"value": value})

    def create_targets(self, tokens: dict[str, str]) -> None:
        """`tokens`: controller id -> security token."""
        self.call("POST", "targets", [{"controllerId": name, "name": name, "securityToken": token}
                                      for name, token in tokens.items()])

    def create_module(self, name: str, version: str, files: list[Path]) -> int:
        """Creates a software module with the files and returns its id."""
        module = self.call("POST", "softwaremodules",
                           [{"name": name, "version": version, "type": "os"}])[0]["id"]
        for file in files:
            self.upload(module, file)
        return module

    def create_set(self, name: str, version: str, module: int) -> int:
        return self.call("POST", "distributionsets", [{
            "name": name, "version": version, "type": "os", "modules": [{"id": module}]}])[0]["id"]

    def upload(self, module: int, file: Path) -> None:
        mark = uuid.uuid4().hex
        head = (f"--{mark}\r\nContent-Disposition: form-data; name=\"file\"; "
                f"filename=\"{file.name}\"\r\nContent-Type: application/octet-stream\r\n\r\n")
        self.call("POST", f"softwaremodules/{module}/artifacts",
                  head.encode() + file.read_bytes() + f"\r\n--{mark}--\r\n".encode(),
                  f"multipart/form-data; boundary={mark}")

    def assign(self, distribution_set: int, name: str, kind: str = "forced") -> None:
        self.call("POST", f"distributionsets/{distribution_set}/assignedTargets",
                  [{"id": name, "type": kind}])

    def create_rollout(self, name: str, distribution_set: int, query: str, groups: int,
                       most_errors: int) -> int:
        """Creates a rollout and returns its id. A group starts when all cameras of the group before have
        succeeded. More than `most_errors` percent of errors in a group pause the rollout."""
        return self.call("POST", "rollouts", {
            "name": name, "distributionSetId": distribution_set, "targetFilterQuery": query,
            "amountGroups": groups, "type": "forced",
            "successCondition": {"condition": "THRESHOLD", "expression": "100"},
            "successAction": {"action": "NEXTGROUP", "expression": ""},
            "errorCondition": {"condition": "THRESHOLD", "expression": str(most_errors)},
            "errorAction": {"action": "PAUSE", "expression": ""}})["id"]

    def start_rollout(self, rollout: int) -> None:
        self.call("POST", f"rollouts/{rollout}/start")

    def rollout_status(self, rollout: int) -> str:
        return self.call("GET", f"rollouts/{rollout}")["status"]

    def groups(self, rollout: int) -> list[dict]:
        """Returns the groups in the order of the rollout; each has "id", "name" and "status"."""
        found = self.call("GET", f"rollouts/{rollout}/deploygroups?limit={MOST}")["content"]
        return sorted(found, key=lambda group: group["id"])

    def targets_of_group(self, rollout: int, group: int) -> list[str]:
        found = self.call("GET", f"rollouts/{rollout}/deploygroups/{group}/targets?limit={MOST}")
        return [target["controllerId"] for target in found["content"]]

    def attributes(self, name: str) -> dict[str, str]:
        return self.call("GET", f"targets/{name}/attributes") or {}

    def actions(self, name: str) -> list[dict]:
        """Returns the actions of a camera, the newest first."""
        return self.call("GET", f"targets/{name}/actions?limit={MOST}&sort=id:DESC")["content"]

    def statuses(self, name: str, action: int) -> list[dict]:
        """Returns the status messages, newest first; each has "type", "messages" and "reportedAt"."""
        return self.call("GET", f"targets/{name}/actions/{action}/status?limit={MOST}&sort=id:DESC"
                         )["content"]

    def remove(self, what: str, number: int | str) -> None:
        """It is no error if the object does not exist any more."""
        try:
            self.call("DELETE", f"{what}/{number}")
        except Refused as refusal:
            if refusal.status != 404:
                raise
