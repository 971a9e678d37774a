#!/usr/bin/python3
# SPDX-License-Identifier: MIT
# demo.py: shows the daemon's main job on the terminal, in pictures and on a page.
#
# It runs the stages of story.py, through private-machine --displays. It writes a picture of each stage, a
# picture of all stages (stations.png) and a page with pictures and log side by side (index.html).
#
# usage: demo.py DIRECTORY [SESSION]    SESSION: the display that shows the stations in windows
import html
import sys
import textwrap
import time
from pathlib import Path

from PIL import Image, ImageDraw
from Xlib import error

from support.displays import Stations, font
from support.story import Story

DESK, FRAME, PAPER, TEXT, FAINT = "#d9dee7", "#20242c", "#ffffff", "#222a38", "#5b6575"
TIME_TO_WATCH = 3.0  # seconds for each stage in windows

STYLE = """
body { font: 16px/1.5 "DejaVu Sans", sans-serif; color: #222a38; background: #f4f6f9; margin: 2rem auto;
       max-width: 1500px; padding: 0 1rem; }
section { background: white; border: 1px solid #d9dee7; border-radius: 8px; margin: 1.5rem 0;
          padding: 1rem 1.5rem; }
.beside { display: grid; grid-template-columns: 3fr 2fr; gap: 1.5rem; align-items: start; }
img { width: 100%; border-radius: 6px; }
pre { background: #20242c; color: #e6e8f0; border-radius: 6px; font-size: 12px; line-height: 1.45; margin: 0;
      max-height: 26em; overflow: auto; padding: .8em 1em; white-space: pre-wrap; }
code { background: #eef1f6; padding: .1em .3em; }
@media (max-width: 1000px) { .beside { grid-template-columns: 1fr; } }
"""


def side_by_side(pictures):
    """The screens of one stage on one desk, each with the name of its display below."""
    width, height = next(iter(pictures.values())).size
    desk = Image.new("RGB", (20 + len(pictures) * (width + 40), height + 84), DESK)
    draw = ImageDraw.Draw(desk)
    for place, (number, picture) in enumerate(pictures.items()):
        left = 30 + place * (width + 40)
        draw.rounded_rectangle((left - 10, 14, left + width + 9, height + 33), 10, FRAME)
        desk.paste(picture, (left, 24))
        draw.text((left + width / 2, height + 58), f"display :{number}", TEXT, font(24), "mm")
    return desk


def storyboard(stages):
    """All stages in one picture: a row for each, with the calls on the left and the screens on the right."""
    width, row, left = 1000, 136, 272
    board = Image.new("RGB", (width, len(stages) * row + 8), PAPER)
    draw = ImageDraw.Draw(board)
    for place, stage in enumerate(stages):
        top = place * row + 8
        title = textwrap.wrap(stage.title, 22)
        draw.text((12, top + 4), f"{place + 1}", FAINT, font(17, "-Bold"))
        draw.text((38, top + 4), "\n".join(title), TEXT, font(17, "-Bold"), spacing=4)
        calls = stage.calls if len(stage.calls) <= 4 else stage.calls[:3] + ["..."]
        draw.text((38, top + 6 + 24 * len(title)), "\n".join(calls), FAINT, font(12), spacing=4)
        for screen, picture in enumerate(stage.pictures.values()):
            x = left + screen * 244
            draw.rounded_rectangle((x - 5, top - 3, x + 216 + 4, top + 121), 6, FRAME)
            board.paste(picture.resize((216, 117), Image.LANCZOS), (x, top + 1))
    return board


def page(stages):
    sections = ""
    for place, stage in enumerate(stages, 1):
        status = "\n".join(["$ corvane-ctl status", *stage.status])
        shown = stage.title, stage.text, "\n".join(stage.log), status
        title, text, log, status = (html.escape(text) for text in shown)
        calls = "<br>".join(f"<code>{html.escape(call)}</code>" for call in stage.calls)
        sections += f"""<section>
<h2>{place}. {title}</h2>
<p>{text}</p>
<div class="beside"><div><img src="{picture_name(place)}" alt="The three screens. {text}">
<p>{calls}</p>
<pre>{status}</pre></div>
<pre>{log}</pre></div>
</section>
"""
    return f"""<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>corvane-cs at work</title><style>{STYLE}</style></head>
<body>
<h1>corvane-cs at work on three stations</h1>
<p>The daemon, the message bus, the displays and the pictures are real. The actors are small programs of the
demonstration. Each picture has the lines beside it that the daemon has logged since the previous one.</p>
{sections}</body></html>
"""


def picture_name(place):
    return f"stage-{place}.png"


def main(directory, session=None):
    directory = Path(directory)
    directory.mkdir(parents=True, exist_ok=True)
    stations = Stations(session)
    try:
        stages = show(stations, directory, TIME_TO_WATCH if session else 0)
    finally:
        stations.clean()
    storyboard(stages).quantize(64).save(directory / "stations.png", optimize=True)
    (directory / "index.html").write_text(page(stages))
    print(f"\nThe demo passed all stages. Pictures and log, side by side: {directory}/index.html")


def show(stations, directory, time_to_watch):
    """Prints each stage as it runs, and saves its pictures; returns all stages."""
    stages = []
    for stage in Story(stations).stages():
        stages.append(stage)
        print(f"\n== {len(stages)}. {stage.title}")
        for call in stage.calls:
            print(f"   {call}")
        print(textwrap.fill(stage.text, 100, initial_indent="   ", subsequent_indent="   "))
        print("   $ corvane-ctl status")
        for line in stage.status:
            print(f"   {line}".rstrip(), flush=True)
        side_by_side(stage.pictures).quantize(64).save(directory / picture_name(len(stages)), optimize=True)
        time.sleep(time_to_watch)
    return stages


try:
    main(*sys.argv[1:])
except (AssertionError, error.DisplayError, error.ConnectionClosedError) as failure:
    sys.exit(f"\nThe demo failed: {failure}")
