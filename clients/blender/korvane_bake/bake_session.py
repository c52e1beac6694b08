"""One bake through the service: meshes in, job followed, maps out.

The same session runs in Blender's UI (stepped from a modal timer) and in
background mode (stepped until done), so both paths share every rule.
"""

import os
import queue
import shutil
import tempfile

import bpy

from . import mesh_export, properties
from .service_client import ServiceError

LOW_KEY = "blender:low"
HIGH_KEY = "blender:high"
CANCELLED = "cancelled"


def map_path(folder, low_name, map_name):
    """`<low object>_<map>.exr`; a separator in the name would leave the folder."""
    safe = low_name.replace("/", "_").replace("\\", "_")
    return os.path.join(folder, "%s_%s.exr" % (safe, map_name))


def high_objects(settings):
    if settings.high_object is not None:
        return [settings.high_object]
    if settings.high_collection is None:
        raise ServiceError("set a high object or a high collection")
    low = settings.low_object
    meshes = [o for o in settings.high_collection.all_objects if o.type == 'MESH' and o != low]
    if not meshes:
        raise ServiceError("the collection '%s' holds no mesh" % settings.high_collection.name)
    return meshes


class BakeSession:
    """Loads the meshes, queues the jobs one after the other and follows each
    to its final reply: the Normal bake when Normal or Opacity is chosen, then
    one mesh-maps job for the chosen mesh maps, on the same loaded keys.

    `step` handles what the service has sent so far; `done` turns true with
    the final reply, after which `error` or `images` tell the outcome.
    """

    def __init__(self, client, context):
        self.client = client
        self.settings = context.scene.korvane
        self.progress = 0.0
        self.status = "exporting meshes"
        self.warnings = []
        self.error = None
        self.reused = []  # keys whose meshes the service already held
        self.images = []
        self.done = False
        self._sections = {}  # load request id -> (key, MeshSection)
        self._job_id = None  # the job queued or running now
        self._current = None  # its (op, settings, outputs)
        self._cancel_sent = False
        self._scratch = None
        self._check_settings()
        # What the jobs write is fixed now: the panel may change meanwhile.
        self._jobs = self._plan_jobs()
        self._jobs_total = len(self._jobs)
        self._load_meshes(context.evaluated_depsgraph_get())

    def _check_settings(self):
        settings = self.settings
        if settings.low_object is None:
            raise ServiceError("set a low object")
        if not properties.chosen(settings, properties.NORMAL_MAPS + properties.MESH_MAPS):
            raise ServiceError("choose at least one map to bake")
        folder = settings.output_dir or "//"
        if folder.startswith("//") and not bpy.data.filepath:
            raise ServiceError("the output folder '%s' is relative to the .blend file: "
                               "save the file first or choose a folder" % folder)
        self.folder = bpy.path.abspath(folder)
        try:
            # A folder like //textures/ is made on first use, as renders do.
            os.makedirs(self.folder, exist_ok=True)
        except OSError as error:
            raise ServiceError("cannot make the output folder '%s': %s"
                               % (self.folder, error.strerror or error))

    def _plan_jobs(self):
        """(op, settings, outputs) of each job, in the order they run."""
        low = self.settings.low_object.name
        jobs = []
        for op, names, settings in (
                ("bake", properties.NORMAL_MAPS, properties.bake_settings),
                ("meshmaps", properties.MESH_MAPS, properties.meshmaps_settings)):
            names = properties.chosen(self.settings, names)
            if names:
                outputs = {name: map_path(self.folder, low, name) for name in names}
                jobs.append((op, settings(self.settings), outputs))
        return jobs

    def _load_meshes(self, depsgraph):
        low = [mesh_export.export_object(self.settings.low_object, depsgraph, True)]
        high = [mesh_export.export_object(o, depsgraph, False) for o in high_objects(self.settings)]
        try:
            for key, objects in ((LOW_KEY, low), (HIGH_KEY, high)):
                section = mesh_export.MeshSection(objects)
                try:
                    request_id = self.client.send(
                        "mesh.load_shm", key=key, section=section.name, size=section.size,
                        objects=section.objects, hash=section.hash)
                except ServiceError:
                    section.close()
                    raise
                self._sections[request_id] = (key, section)
        except Exception:
            # No section may outlive a session that never started.
            self._finish("not started")
            raise
        self.status = "loading meshes"

    @property
    def bake_queued(self):
        """True once a job request is sent (the meshes are loaded)."""
        return self._job_id is not None

    @property
    def job_op(self):
        """The op of the job queued or running now, or None."""
        return self._current[0] if self._job_id is not None else None

    def step(self, timeout=0.0):
        """Handles every line that arrived; waits up to `timeout` for the first."""
        try:
            message = self.client.messages.get(timeout=timeout) if timeout else \
                self.client.messages.get_nowait()
        except queue.Empty:
            return
        while not self.done:
            self._handle(message)
            try:
                message = self.client.messages.get_nowait()
            except queue.Empty:
                return

    def cancel(self):
        """Asks the service to stop; the job still ends with its own reply."""
        if self._cancel_sent or self.done:
            return
        self._cancel_sent = True
        self.status = "cancelling"
        if self._job_id is None:
            self._finish(CANCELLED)
            return
        try:
            self.client.send("cancel", job=self._job_id)
        except ServiceError as error:
            self._finish(str(error))

    def _handle(self, message):
        if message is None:
            self._finish(self.client.ended_message())
        elif "event" in message:
            if message.get("job") == self._job_id:
                self._on_event(message)
        elif message.get("id") in self._sections:
            self._on_loaded(message)
        elif message.get("id") == self._job_id:
            self._on_job_reply(message)

    def _on_loaded(self, reply):
        key, section = self._sections.pop(reply["id"])
        # The service has copied the arrays (or kept its own) by now.
        section.close()
        if not reply.get("ok"):
            self._finish(reply.get("error", "the mesh load failed"))
            return
        if reply.get("reused"):
            self.reused.append(key)
        if not self._sections and self.error is None:
            self._submit_next()

    def _submit_next(self):
        if self._cancel_sent:
            self._finish(CANCELLED)
            return
        self._current = self._jobs.pop(0)
        self._written = 0
        op, settings, outputs = self._current
        outputs = dict(outputs)
        fields = {}
        if op == "bake" and "normal" not in outputs:
            # The service always writes a Normal map; an unwanted one goes to
            # a scratch folder removed when the session ends.
            self._scratch = tempfile.mkdtemp(prefix="korvane-")
            outputs["normal"] = os.path.join(self._scratch, "normal.exr")
        if op == "meshmaps":
            # Each map written is announced, so the status can name it.
            fields["stream"] = True
        try:
            self._job_id = self.client.send(op, low=LOW_KEY, high=HIGH_KEY, settings=settings,
                                            outputs=outputs, **fields)
        except ServiceError as error:
            self._finish(str(error))
            return
        self.status = "queued"

    def _on_event(self, event):
        kind = event["event"]
        if kind == "phase":
            self.status = event.get("phase", "")
        elif kind == "region" and event.get("total"):
            self._set_progress(event["done"] / event["total"])
            self.status = "baking %d%%" % int(self.progress * 100)
        elif kind == "map_done" and event.get("map"):
            # The mesh-maps job reports no bands: each written map is a step.
            self._written += 1
            self._set_progress(self._written / len(self._current[2]))
            self.status = "%s written" % event["map"]
        elif kind == "notice" and event.get("message"):
            self.warnings.append(event["message"])

    def _set_progress(self, job_fraction):
        """The whole session's share done: each job counts alike."""
        finished = self._jobs_total - len(self._jobs) - 1
        self.progress = (finished + min(max(job_fraction, 0.0), 1.0)) / self._jobs_total

    def _on_job_reply(self, reply):
        if reply.get("queued"):
            return
        if not reply.get("ok"):
            self._finish(CANCELLED if reply.get("code") == "cancelled" else reply.get("error"))
            return
        self._set_progress(1.0)
        try:
            self.images += [_load_image(path) for path in self._current[2].values()]
        except RuntimeError as error:
            self._finish("the maps were written, but Blender cannot open them: %s" % error)
            return
        if self._jobs:
            self._submit_next()
        else:
            self._finish(None)

    def _finish(self, error):
        self.error = error
        self.done = True
        for _, section in self._sections.values():
            section.close()
        self._sections.clear()
        if self._scratch:
            shutil.rmtree(self._scratch, ignore_errors=True)
            self._scratch = None


def _load_image(path):
    """The written map as a Blender image; an earlier load is refreshed."""
    image = bpy.data.images.load(path, check_existing=True)
    image.reload()
    # The maps hold data, not colours: no view transform may touch them.
    image.colorspace_settings.name = 'Non-Color'
    return image
