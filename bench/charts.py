"""Bar charts as SVG, readable on light and dark pages."""
from xml.sax.saxutils import escape

WIDTH, LABELS, VALUES = 760, 300, 90  # pixels: in all, left of the bars, right of them
ROW, TOP = 26, 58
OURS, PEER = "#0b7285", "#adb5bd"

STYLE = """
text { font: 13px system-ui, sans-serif; fill: #212529; }
.title { font-weight: 600; font-size: 15px; } .unit { fill: #868e96; }
@media (prefers-color-scheme: dark) { text { fill: #dee2e6; } }
""".strip()


def number(value):
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def text(x, y, words, kind="", anchor="start"):
    shown = f' class="{kind}"' if kind else ""
    return f'<text x="{x}" y="{y}" text-anchor="{anchor}"{shown}>{escape(words)}</text>'


def bar_chart(title, unit, rows):
    """Rows are (label, value, whether it is ours), drawn to one scale from 0 on."""
    room = WIDTH - LABELS - VALUES
    largest = max(value for _, value, _ in rows) or 1
    height = TOP + ROW * len(rows) + 10
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
        f'width="{WIDTH}" height="{height}" role="img">',
        f"<title>{escape(title)}</title>", f"<style>{STYLE}</style>",
        text(8, 22, title, "title"), text(8, 42, unit, "unit"),
    ]
    for index, (label, value, ours) in enumerate(rows):
        top = TOP + ROW * index
        length = max(1, round(room * value / largest))
        parts += [
            text(LABELS - 8, top + 15, label, anchor="end"),
            f'<rect x="{LABELS}" y="{top + 2}" width="{length}" height="{ROW - 8}" rx="2" '
            f'fill="{OURS if ours else PEER}"/>',
            text(LABELS + length + 6, top + 15, number(value)),
        ]
    return "\n".join([*parts, "</svg>"]) + "\n"
