"""The main results as an SVG chart: one panel of bars per row, each with a scale of its own."""

from xml.sax.saxutils import escape

from runner.report import short
from runner.samples import by_round, median

PANELS = ("tput_100", "tput_100_pairs", "tput_1k", "tput_64k", "lat", "conn", "idle_5000", "mem")

COLUMNS = 2
PANEL_WIDTH = 460
NAME_WIDTH = 140
VALUE_WIDTH = 70
BAR_HEIGHT = 16
BAR_STEP = 22
TITLE_HEIGHT = 44
MARGIN = 20

COLOURS = {"zenk": "#1b6ca8", "raw": "#9aa5ad", "beast": "#d98c2b", "websocketpp": "#8f6bb3"}
OTHER_COLOUR = "#5b8c5a"


def text(x: float, y: float, content: str, **attributes) -> str:
    extra = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x:.0f}" y="{y:.0f}"{extra}>{escape(content)}</text>'


def bars_of(results: dict, row: dict) -> list:
    """Title, colour and median of each server that was measured in this row."""
    bars = []
    for server in results["servers"]:
        value = median(by_round(results["samples"], row["key"], server["key"], row["figure"]).values())
        if value is not None:
            bars.append((server["title"], COLOURS.get(server["key"], OTHER_COLOUR), value))
    return bars


def panel(row: dict, bars: list, left: float, top: float) -> list:
    largest = max(value for _, _, value in bars) or 1
    room = PANEL_WIDTH - NAME_WIDTH - VALUE_WIDTH - 2 * MARGIN
    parts = [text(left, top + 14, row["title"], font_weight="bold"),
             text(left, top + 30, f"{row['unit']}, less is better", fill="#666")]
    for i, (name, colour, value) in enumerate(bars):
        y = top + TITLE_HEIGHT + i * BAR_STEP
        width = max(1.0, room * value / largest)
        parts.append(text(left + NAME_WIDTH - 8, y + 12, name, text_anchor="end"))
        parts.append(f'<rect x="{left + NAME_WIDTH}" y="{y}" width="{width:.1f}" height="{BAR_HEIGHT}" '
                     f'fill="{colour}"/>')
        parts.append(text(left + NAME_WIDTH + width + 6, y + 12, short(value)))
    return parts


def svg(results: dict) -> str:
    rows = {row["key"]: row for row in results["rows"]}
    panels = [(rows[key], bars_of(results, rows[key])) for key in PANELS if key in rows]
    panels = [(row, bars) for row, bars in panels if bars]
    panel_height = TITLE_HEIGHT + BAR_STEP * len(results["servers"]) + MARGIN
    width = COLUMNS * PANEL_WIDTH + MARGIN
    height = -(-len(panels) // COLUMNS) * panel_height + 2 * MARGIN
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
             f'<rect width="{width}" height="{height}" fill="white"/>']
    for i, (row, bars) in enumerate(panels):
        parts += panel(row, bars, MARGIN + i % COLUMNS * PANEL_WIDTH, MARGIN + i // COLUMNS * panel_height)
    return "\n".join([*parts, "</svg>"]) + "\n"
