"""The korvane service process and its line protocol.

One process serves the whole Blender session: meshes loaded once stay under
their keys, so a second bake of unchanged meshes skips their transfer.
"""

import itertools
import json
import os
import queue
import shutil
import subprocess
import threading
import time

PROTOCOL = 1
START_TIMEOUT_SECONDS = 30.0


class ServiceError(Exception):
    """A failure of the service itself or of a request, with korvane's text."""

    def __init__(self, message, code=None):
        super().__init__(message)
        self.code = code


def resolve_binary(preference_path):
    """The binary to run: the preference, else $KORVANE, else korvane on PATH."""
    if preference_path:
        return preference_path
    if os.environ.get("KORVANE"):
        return os.environ["KORVANE"]
    found = shutil.which("korvane")
    if not found:
        raise ServiceError(
            "korvane was not found: set its path in the add-on's preferences or in the "
            "KORVANE environment variable, or put korvane on PATH")
    return found


class ServiceClient:
    """A running `korvane serve` owned by this process.

    Lines are read on a thread of their own so that Blender's UI never blocks
    on the pipe; callers take them from `messages` whenever it suits them.
    """

    def __init__(self, binary):
        self.binary = binary
        self.messages = queue.Queue()
        self._ids = itertools.count(1)
        self._stderr_tail = []
        try:
            # The parent pid lets the service end itself when Blender ends,
            # however Blender ends.
            self._process = subprocess.Popen(
                [binary, "serve", "--parent-pid", str(os.getpid())],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        except OSError as error:
            raise ServiceError("cannot start korvane at '%s': %s"
                               % (binary, error.strerror or error))
        threading.Thread(target=self._read_stdout, daemon=True).start()
        threading.Thread(target=self._read_stderr, daemon=True).start()

    def _read_stdout(self):
        for raw in self._process.stdout:
            try:
                self.messages.put(json.loads(raw))
            except ValueError:
                self.messages.put({"unreadable": raw.decode("utf-8", "replace")})
        # None marks the end of the service's output.
        self.messages.put(None)

    def _read_stderr(self):
        for raw in self._process.stderr:
            self._stderr_tail = (self._stderr_tail + [raw.decode("utf-8", "replace").rstrip()])[-5:]

    def alive(self):
        return self._process.poll() is None

    def ended_message(self):
        """Why the service is gone, in its own words when it left any."""
        try:
            self._process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            return "the korvane service (%s) closed its output but kept running" % self.binary
        text = "; ".join(line for line in self._stderr_tail if line)
        detail = text or "exit status %d" % self._process.returncode
        return "the korvane service (%s) ended: %s" % (self.binary, detail)

    def send(self, op, **fields):
        """Writes one request and returns its id; the reply comes later."""
        request_id = next(self._ids)
        line = json.dumps(dict(id=request_id, op=op, **fields), separators=(",", ":"))
        try:
            self._process.stdin.write(line.encode("utf-8") + b"\n")
            self._process.stdin.flush()
        except OSError:
            raise ServiceError(self.ended_message())
        return request_id

    def wait_reply(self, request_id, timeout):
        """Blocks until the reply to `request_id`; other lines are dropped."""
        deadline = time.monotonic() + timeout
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise ServiceError("korvane at '%s' did not answer within %g s"
                                   % (self.binary, timeout))
            try:
                message = self.messages.get(timeout=remaining)
            except queue.Empty:
                continue
            if message is None:
                raise ServiceError(self.ended_message())
            if message.get("id") == request_id and "event" not in message:
                return message

    def handshake(self):
        reply = self.wait_reply(self.send("hello"), START_TIMEOUT_SECONDS)
        if not reply.get("ok") or reply.get("protocol") != PROTOCOL:
            raise ServiceError("'%s' does not speak korvane's protocol %d"
                               % (self.binary, PROTOCOL))
        return reply

    def close(self):
        if self.alive():
            try:
                self.send("shutdown")
                self._process.stdin.close()
                self._process.wait(timeout=5)
            except (ServiceError, OSError, subprocess.TimeoutExpired):
                self._process.kill()


_shared = None


def shared_service(binary):
    """The session's service, started on first use and after it ended."""
    global _shared
    if _shared is not None and (_shared.binary != binary or not _shared.alive()):
        _shared.close()
        _shared = None
    if _shared is None:
        client = ServiceClient(binary)
        try:
            client.handshake()
        except ServiceError:
            client.close()
            raise
        _shared = client
    return _shared


def stop_shared_service():
    global _shared
    if _shared is not None:
        _shared.close()
        _shared = None
