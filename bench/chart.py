"""Line charts with logarithmic values up, as SVG without help from anywhere."""
import math

WIDTH, HEIGHT = 760, 420
LEFT, RIGHT, TOP, BOTTOM = 70, 20, 44, 78
COLOURS = ("#0b6e4f", "#c8553d", "#3a5a98", "#7d7d7d")


def decades(low, high):
    return [10.0 ** n for n in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)]


def axis(ticks, logarithmic, start, end):
    scale = math.log10 if logarithmic else float
    low, high = scale(ticks[0]), scale(ticks[-1])
    return lambda value: start + (scale(value) - low) / (high - low) * (end - start)


def line_chart(title, x_title, y_title, series, across, x_logarithmic):
    """series: (name, [(x, y), ...]) each; across: where x has its ticks, of which the outer ones bound the chart."""
    ys = [y for _, points in series for _, y in points]
    up = decades(min(ys), max(ys))
    x_of = axis(across, x_logarithmic, LEFT, WIDTH - RIGHT)
    y_of = axis(up, True, HEIGHT - BOTTOM, TOP)

    def text(x, y, what, anchor="middle", more=""):
        return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{what}</text>'

    def line(x1, y1, x2, y2, colour, width=1):
        return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                f'stroke="{colour}" stroke-width="{width}"/>')

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
             'font-family="sans-serif" font-size="12" fill="#222">',
             f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#fff"/>',
             text(LEFT, 24, title, "start", ' font-size="15" font-weight="bold"')]
    for tick in up:
        parts += [line(LEFT, y_of(tick), WIDTH - RIGHT, y_of(tick), "#ddd"),
                  text(LEFT - 8, y_of(tick) + 4, f"{tick:g}", "end")]
    for tick in across:
        parts += [line(x_of(tick), TOP, x_of(tick), HEIGHT - BOTTOM, "#eee"),
                  text(x_of(tick), HEIGHT - BOTTOM + 18, f"{tick:g}")]
    parts += [text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - BOTTOM + 38, x_title),
              text(0, 0, y_title, more=f' transform="translate(18 {(TOP + HEIGHT - BOTTOM) / 2:.0f}) rotate(-90)"')]
    at = LEFT
    for (name, points), colour in zip(series, COLOURS):
        path = " ".join(f"{x_of(x):.1f},{y_of(y):.1f}" for x, y in points)
        parts += [f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="1.3"/>',
                  line(at, HEIGHT - 18, at + 22, HEIGHT - 18, colour, 3), text(at + 28, HEIGHT - 14, name, "start")]
        at += 60 + 7 * len(name)
    return "\n".join(parts) + "\n</svg>\n"
