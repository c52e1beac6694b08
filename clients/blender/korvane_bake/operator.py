"""`korvane.bake`: modal in the UI, run to the end in background mode."""

import bpy

from . import bake_session, mesh_export, preferences, service_client
from .service_client import ServiceError

TIMER_SECONDS = 0.1
PROGRESS_STEPS = 1000


def start_session(context):
    """Starts (or reuses) the service and hands it the meshes."""
    binary = service_client.resolve_binary(preferences.preference_path(context))
    client = service_client.shared_service(binary)
    return bake_session.BakeSession(client, context)


class KORVANE_OT_bake(bpy.types.Operator):
    """Bake the chosen maps from the high mesh onto the low mesh's UV layout"""

    bl_idname = "korvane.bake"
    bl_label = "Bake"
    bl_options = {'REGISTER'}

    # The one bake that runs in the UI; a second one is refused until it ends.
    _running = None

    def execute(self, context):
        # Scripts and background mode get the whole bake before the call returns.
        session = self._start(context)
        if session is None:
            return {'CANCELLED'}
        while not session.done:
            session.step(timeout=TIMER_SECONDS)
        return self._report_end(session)

    def invoke(self, context, _event):
        if bpy.app.background:
            return self.execute(context)
        session = self._start(context)
        if session is None:
            return {'CANCELLED'}
        KORVANE_OT_bake._running = session
        self._timer = context.window_manager.event_timer_add(TIMER_SECONDS, window=context.window)
        context.window_manager.progress_begin(0, PROGRESS_STEPS)
        context.window_manager.modal_handler_add(self)
        return {'RUNNING_MODAL'}

    def modal(self, context, event):
        session = KORVANE_OT_bake._running
        if event.type == 'ESC' and event.value == 'PRESS':
            session.cancel()
        elif event.type != 'TIMER':
            return {'PASS_THROUGH'}
        try:
            session.step()
        except Exception:
            # Whatever broke, the UI gets its progress bar back and the next
            # bake may start.
            self._end_modal(context)
            raise
        context.window_manager.progress_update(int(session.progress * PROGRESS_STEPS))
        context.workspace.status_text_set("korvane: %s (Esc to cancel)" % session.status)
        if not session.done:
            return {'RUNNING_MODAL'}
        self._end_modal(context)
        return self._report_end(session)

    def _end_modal(self, context):
        context.window_manager.event_timer_remove(self._timer)
        context.window_manager.progress_end()
        context.workspace.status_text_set(None)
        KORVANE_OT_bake._running = None

    def _start(self, context):
        # Two sessions would take each other's replies from the one service.
        if KORVANE_OT_bake._running is not None:
            self.report({'ERROR'}, "a korvane bake is already running")
            return None
        try:
            return start_session(context)
        except (ServiceError, mesh_export.ExportError) as error:
            self.report({'ERROR'}, str(error))
            return None

    def _report_end(self, session):
        for warning in session.warnings:
            self.report({'WARNING'}, warning)
        if session.error == bake_session.CANCELLED:
            self.report({'INFO'}, "korvane bake cancelled")
            return {'CANCELLED'}
        if session.error:
            self.report({'ERROR'}, session.error)
            return {'CANCELLED'}
        names = ", ".join(image.name for image in session.images)
        self.report({'INFO'}, "korvane baked %s" % names)
        return {'FINISHED'}
