"""Memory over time: samples of processes, and a picture of them."""

WIDTH, HEIGHT, MARGIN = 860, 320, 56  # pixels
COLOURS = ("#1f6feb", "#d1730f", "#1a7f37", "#8250df")


def draw(path, title, curves, marks=()):
    """Writes an SVG; curves: {name: [(s, KiB)]}, where None for KiB breaks the line; marks: seconds of restarts."""
    points = [point for curve in curves.values() for point in curve if point[1] is not None]
    longest = max((at for at, _ in points), default=1)
    highest = round_up(max((size for _, size in points), default=1) / 1024)

    def x(at):
        return MARGIN + at / longest * (WIDTH - 2 * MARGIN)

    def y(size):
        return HEIGHT - MARGIN - size / 1024 / highest * (HEIGHT - 2 * MARGIN)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif"'
             f' font-size="12"><rect width="{WIDTH}" height="{HEIGHT}" fill="#fff"/>',
             f'<text x="{MARGIN}" y="20" font-size="14">{title}</text>']
    for step in range(5):
        size = highest * step / 4
        parts.append(f'<path d="M{MARGIN} {y(size * 1024):.1f}H{WIDTH - MARGIN}" stroke="#ddd"/>'
                     f'<text x="{MARGIN - 8}" y="{y(size * 1024) + 4:.1f}" text-anchor="end">{size:g}</text>')
        parts.append(f'<text x="{x(longest * step / 4):.1f}" y="{HEIGHT - MARGIN + 18}" text-anchor="middle">'
                     f'{longest * step / 4 / 60:.0f} min</text>')
    parts += [f'<path d="M{x(at):.1f} {HEIGHT - MARGIN}v-6" stroke="#888"/>' for at in marks]
    for number, (name, curve) in enumerate(curves.items()):
        colour = COLOURS[number % len(COLOURS)]
        parts.append(f'<path d="{path_of(curve, x, y)}" fill="none" stroke="{colour}" stroke-width="1.5"/>'
                     f'<text x="{WIDTH - MARGIN}" y="{20 + 16 * number}" fill="{colour}"'
                     f' text-anchor="end">{name}</text>')
    note = "MiB resident; a tick at the bottom is a restart of the daemon"
    parts.append(f'<text x="{MARGIN}" y="{HEIGHT - 12}" fill="#555">{note}</text></svg>')
    with open(path, "w") as file:
        file.write("\n".join(parts) + "\n")


def path_of(curve, x, y):
    """At most one point for each pixel: the largest of its samples."""
    steps, pen, last = [], "M", None
    for at, size in curve:
        if size is None:
            pen, last = "M", None
            continue
        column = int(x(at))
        if column == last and float(steps[-1].split()[1]) <= y(size):
            continue
        if column == last:
            pen = steps.pop()[0]
        steps.append(f"{pen}{column} {y(size):.1f}")
        pen, last = "L", column
    return "".join(steps)


def round_up(size):
    """To a number of MiB that divides into four."""
    step = 4 if size <= 40 else 20
    return step * (int(size // step) + 1)
