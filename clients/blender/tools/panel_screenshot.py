"""Draws the add-on's panel on the sample pair and saves it as a PNG.

Blender cannot draw its interface in background mode, so this runs the
interface on a virtual display (Debian's xvfb package):
  xvfb-run -a -s "-screen 0 1600x1000x24" blender --factory-startup \\
      --enable-event-simulate --python clients/blender/tools/panel_screenshot.py -- \\
      examples clients/blender/panel.png
"""

import os
import sys

import addon_utils
import bpy
import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
CROP_WIDTH, CROP_HEIGHT = 420, 640  # the sidebar's top right corner


def arguments():
    examples, output = sys.argv[sys.argv.index("--") + 1:]
    return os.path.abspath(examples), os.path.abspath(output)


def load_sample(examples):
    bpy.ops.object.select_all(action='SELECT')
    bpy.ops.object.delete()
    for name in ("sphere_low", "sphere_high"):
        bpy.ops.wm.obj_import(filepath=os.path.join(examples, name + ".obj"),
                              forward_axis='Y', up_axis='Z')
    settings = bpy.context.scene.korvane
    settings.low_object = bpy.data.objects["sphere_low"]
    settings.high_object = bpy.data.objects["sphere_high"]
    settings.bake_opacity = True
    settings.output_dir = "//maps/"


def view3d():
    window = bpy.context.window_manager.windows[0]
    area = next(a for a in window.screen.areas if a.type == 'VIEW_3D')
    sidebar = next(r for r in area.regions if r.type == 'UI')
    return window, area, sidebar


def click_korvane_tab(window, sidebar):
    # Blender 3.4 cannot choose a sidebar tab from Python; the tab is clicked
    # where the sidebar draws it (fourth tab, below Item, Tool and View).
    x, y = sidebar.x + sidebar.width - 10, sidebar.y + sidebar.height - 190
    window.event_simulate(type='MOUSEMOVE', value='NOTHING', x=x, y=y)
    window.event_simulate(type='LEFTMOUSE', value='PRESS', x=x, y=y)
    window.event_simulate(type='LEFTMOUSE', value='RELEASE', x=x, y=y)
    window.event_simulate(type='MOUSEMOVE', value='NOTHING', x=10, y=10)


def save_corner(window, area, output):
    whole = output + ".area.png"
    with bpy.context.temp_override(window=window, area=area):
        bpy.ops.screen.screenshot_area(filepath=whole)
    shot = bpy.data.images.load(whole)
    width, height = shot.size
    pixels = np.empty(width * height * 4, np.float32)
    shot.pixels.foreach_get(pixels)
    rows = pixels.reshape(height, width, 4)[height - CROP_HEIGHT:, width - CROP_WIDTH:]
    corner = bpy.data.images.new("panel", CROP_WIDTH, CROP_HEIGHT)
    corner.pixels.foreach_set(np.ascontiguousarray(rows).reshape(-1))
    corner.filepath_raw = output
    corner.file_format = 'PNG'
    corner.save()
    os.remove(whole)


def steps(examples, output):
    """One step per timer tick: the interface draws between them."""
    load_sample(examples)
    window, area, sidebar = view3d()
    area.spaces.active.show_region_ui = True
    yield
    window, area, sidebar = view3d()
    click_korvane_tab(window, sidebar)
    yield
    save_corner(window, area, output)
    print("panel screenshot:", output)
    bpy.ops.wm.quit_blender()


def main():
    sys.path.insert(0, os.path.join(HERE, os.pardir))
    addon_utils.enable("korvane_bake", default_set=True)
    bpy.context.preferences.view.show_splash = False
    runner = steps(*arguments())

    def tick():
        next(runner, None)
        return 0.5

    bpy.app.timers.register(tick, first_interval=1.0)


main()
