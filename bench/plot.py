"""Puts a run into docs/: its table into performance.md, and how costs grow as small SVG files. plot.py [RESULTS]"""

import json
import math
import sys
from pathlib import Path

from contestants import BUILD, HERE
from run import footnote, table

WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 480, 280, 62, 14, 34, 44
COLOURS = ["#1f6feb", "#d1570a", "#2da44e", "#8250df"]


def decades(values):
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    return low, max(high, low + 1)


def short(exponent):
    if -3 <= exponent < 0:
        return f"{10 ** exponent:g}"
    for limit, letter in ((9, "G"), (6, "M"), (3, "k")):
        if exponent >= limit:
            return f"{10 ** (exponent - limit)}{letter}"
    return f"{10 ** exponent:g}"


class Chart:
    """Both axes are logarithmic."""

    def __init__(self, title, x_name, y_name, curves):
        self.curves = {name: [(x, y) for x, y in points if x > 0 and y > 0] for name, points in curves.items()}
        self.curves = {name: points for name, points in self.curves.items() if points}
        every = [point for points in self.curves.values() for point in points]
        self.x_low, self.x_high = decades([x for x, _ in every]) if every else (0, 1)
        self.y_low, self.y_high = decades([y for _, y in every]) if every else (0, 1)
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
            'font-family="sans-serif" font-size="11" fill="#24292f">',
            f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
            f'<text x="{LEFT}" y="15" font-size="13" font-weight="bold">{title}</text>',
            f'<text x="{(LEFT + WIDTH - RIGHT) / 2}" y="{HEIGHT - 8}" text-anchor="middle">{x_name}</text>',
            f'<text transform="translate(13,{(TOP + HEIGHT - BOTTOM) / 2}) rotate(-90)" text-anchor="middle">'
            f'{y_name}</text>']

    def x(self, value):
        share = (math.log10(value) - self.x_low) / (self.x_high - self.x_low)
        return round(LEFT + share * (WIDTH - LEFT - RIGHT), 1)

    def y(self, value):
        share = (math.log10(value) - self.y_low) / (self.y_high - self.y_low)
        return round(HEIGHT - BOTTOM - share * (HEIGHT - TOP - BOTTOM), 1)

    def grid(self):
        for exponent in range(self.x_low, self.x_high + 1):
            x = self.x(10.0 ** exponent)
            self.parts.append(f'<path d="M{x} {TOP}V{HEIGHT - BOTTOM}" stroke="#d8dee4"/>'
                              f'<text x="{x}" y="{HEIGHT - BOTTOM + 15}" text-anchor="middle">{short(exponent)}</text>')
        for exponent in range(self.y_low, self.y_high + 1):
            y = self.y(10.0 ** exponent)
            self.parts.append(f'<path d="M{LEFT} {y}H{WIDTH - RIGHT}" stroke="#d8dee4"/>'
                              f'<text x="{LEFT - 5}" y="{y + 4}" text-anchor="end">{short(exponent)}</text>')

    def curve(self, index, name, points):
        colour = COLOURS[index % len(COLOURS)]
        line = " ".join(f"{self.x(x)},{self.y(y)}" for x, y in points)
        self.parts.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        self.parts += [f'<circle cx="{self.x(x)}" cy="{self.y(y)}" r="3" fill="{colour}"/>' for x, y in points]
        self.parts.append(f'<text x="{LEFT + 8 + 130 * index}" y="{TOP - 5}" fill="{colour}">{name}</text>')

    def svg(self):
        self.grid()
        for index, (name, points) in enumerate(self.curves.items()):
            self.curve(index, name, points)
        return "\n".join([*self.parts, "</svg>\n"])


def median_of(results, what, key):
    values = sorted(results["samples"].get(what, {}).get(key, []))
    return values[len(values) // 2] if values else 0


def by_clients(results, pattern, key, scale=1.0):
    return [(n, median_of(results, pattern.format(n), key) * scale) for n in (1, 10, 100, 1000)]


def charts(results):
    growth = {name: curve["points"] for name, curve in results["growth"].items()}
    yield "events", Chart("What events cost", "events there are", "ns", {
        "a posting": growth.get("posting beside events", []), "creating one more": growth.get("creating an event", [])})
    yield "clients-burst", Chart("Fan-out of a burst", "feed clients", "deliveries a second", {
        name: by_clients(results, pattern, "deliveries_per_s")
        for name, pattern in (("ours", "burst {}"), ("Redis", "redis burst {}"), ("NATS", "nats burst {}"))})
    yield "clients-rest", Chart("Fan-out of REST postings", "feed clients", "deliveries a second", {
        "ours": by_clients(results, "rest {}", "deliveries_per_s"),
        "Node.js": by_clients(results, "node rest {}", "deliveries_per_s")})
    yield "history", Chart("What the history's lock is held for", "records", "ns", {
        "reading": growth.get("lock held to read", []), "trimming": growth.get("lock held to trim", [])})
    yield "save", Chart("Saving the state document", "bytes", "us", {"a save": growth.get("save", [])})


def put_table(page, results):
    """Between the two marks of the page."""
    text = page.read_text()
    begin, end = "<!-- table of a run -->\n", "<!-- end of the table -->"
    before, rest = text.split(begin)
    after = rest.split(end)[1]
    page.write_text(f"{before}{begin}\n{table(results['rows'])}\n\n{footnote(results)}\n\n{end}{after}")


def main():
    source = Path(sys.argv[1]) if len(sys.argv) > 1 else BUILD / "results.json"
    docs = HERE.parent / "docs"
    results = json.loads(source.read_text())
    (docs / "plots").mkdir(exist_ok=True)
    for name, chart in charts(results):
        (docs / f"plots/{name}.svg").write_text(chart.svg())
    put_table(docs / "performance.md", results)


if __name__ == "__main__":
    main()
