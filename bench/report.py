#!/usr/bin/env python3
"""Writes the measured figures into a document, between its markers, and draws the plot.

  report.py RESULTS.json INSTRUCTIONS.txt                       prints the tables
  report.py RESULTS.json INSTRUCTIONS.txt DOCUMENT.md PLOT.svg  writes them

The part of the document from a line "<!-- measured: NAME -->" to the next "<!-- end -->" is replaced.
"""
import json
import math
import re
import sys

JOBS = {
    "audio_filter": "audio filter (makes its own sine)",
    "audio_mix": "audio mix (two inputs, amix)",
    "video_filter_whole": "video filter, whole picture (hflip)",
    "video_filter_planes": "video filter, separate planes (hflip)",
    "video_mix_whole": "video mix, whole pictures (overlay of a half-size picture)",
    "video_mix_planes": "video mix, separate planes (the same)",
    "scale_half": "scaling to half the width and height, yuv420p",
    "scale_rgb24": "scaling, yuv420p to rgb24 of the same size",
    "scale_equal": "scaling, equal format and size",
    "scale_gbrp": "scaling, yuv420p to gbrp of the same size",
    "scale_double": "scaling to twice the width and height, yuv420p",
}
PATHS = ["layer", "steps", "threads", "expert", "in_place", "pipes", "libyuv", "zimg"]

# Where the library does more than an expert would: job, path to compare with, which copy, the interface's
# words for it, and what a user can do.
COPIES = [
    ("video_filter_whole", "expert", "FFmpeg's source copies the picture into a frame of its own",
     "“The picture is copied, and never written to”",
     "yes: a mix with one input, whole picture; its block must then stay until the result is received"),
    ("video_filter_planes", "expert",
     "the planes are put together into one picture, which FFmpeg's source copies once more",
     "“pY, pU, pV hold planes 0, 1, 2”; “The picture is copied”",
     "one of the two: hand in the whole picture; both: as above"),
    ("video_filter_whole", "in_place", "the same, and FFmpeg's rows are packed into the caller's buffer",
     "“pOut: receives the picture as three tight 8-bit 4:2:0 planes”", "no"),
    ("video_mix_planes", "expert", "each plane is copied into a new frame",
     "“Separate planes are copied; the caller's bytes are never written to.”", "yes: whole pictures"),
    ("video_mix_whole", "expert",
     "none; for each picture a frame buffer is made that stays unused",
     "“A WHOLE PICTURE IS HANDED TO THE GRAPH WITHOUT A COPY.”", "nothing to avoid"),
    ("video_mix_whole", "in_place", "FFmpeg's rows are packed into the caller's buffer",
     "“pOutBuffer, pnOutSize: as pOut and pnOutLen of AVFilter_Video_Cvt.”", "no"),
    ("scale_half", "expert", "the source is copied in, the result copied out",
     "“the picture is copied in before anything is written”; “pOut is written to on success only”", "no"),
    ("scale_rgb24", "expert", "the same; the result has twice the bytes of the source", "the same", "no"),
    ("scale_equal", "expert", "the source is copied in, the scaler runs, the source's bytes are copied out",
     "“equal format and size on both sides give the source's bytes”",
     "yes: do not convert equal pictures, copy them (that is what the expert does)"),
    ("audio_mix", "expert", "each block is copied into a new frame", "“The samples are copied.”", "no"),
]


def load(path):
    with open(path, encoding="utf-8") as file:
        results = json.load(file)
    rows = {}
    for row in results["benchmarks"]:
        name = re.sub(r"/(iterations:\d+|manual_time|real_time)", "", row["name"])
        if row.get("error_occurred"):
            sys.exit(f"{name}: {row.get('error_message')}")
        rows[name] = row
    return results["context"], rows


def calls(job):
    """What one job takes: a mix is sent a block or picture for each of two inputs, and asked for the result."""
    return 3 if "_mix" in job else 1


def duration(nanoseconds):
    for unit, factor in (("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= factor:
            return f"{nanoseconds / factor:.3g} {unit}"
    return f"{nanoseconds:.0f} ns"


def ratio(row, path):
    if f"r_{path}" not in row:
        return "–"
    value, low, high = (row[f"{key}_{path}"] for key in ("r", "lo", "hi"))
    digits = 2 if value >= 0.1 else 3
    return f"{value:.{digits}f} ({low:.{digits}f}–{high:.{digits}f})"


def table(head, lines):
    out = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(out + ["| " + " | ".join(line) + " |" for line in lines])


def of_job(rows, job):
    return [(name.split("/")[1], row) for name, row in rows.items() if name.split("/")[0] == job]


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        names = re.findall(r"model name\s*: (.*)", file.read())
    return f"{names[0]}, {len(names)} processors" if names else "unknown processor"


def machine(context, _rows, _counts):
    return (f"Measured by `./bench.sh` on {context['date'][:10]}: {processor()} at "
            f"{context['mhz_per_cpu']} MHz, FFmpeg {context['ffmpeg']}.")


def jobs(_context, rows, _counts):
    out = []
    for job, title in JOBS.items():
        sized = of_job(rows, job)
        paths = [path for path in PATHS if any(f"r_{path}" in row for _, row in sized)]
        lines = [[size, duration(row["t_library"])] +
                 [ratio(row, path) + (f", {row['d_steps']:+.0f} ns" if path == "steps" else "") for path in paths]
                 for size, row in sized]
        out.append(f"**{title}**\n\n" + table(["size", "library"] + ["/ " + path for path in paths], lines))
    return "\n\n".join(out)


def summary(_context, rows, _counts):
    large = [row["r_steps"] for job in JOBS for size, row in of_job(rows, job)
             if "x" in size and int(size.split("x")[0]) >= 640]
    small = [f"{job.replace('_', ' ')} {row['d_steps'] / calls(job):+.0f} ns"
             for job in JOBS for size, row in of_job(rows, job) if size in ("64", "16x16")]
    return (f"Library / steps, medians of all {len(large)} picture jobs from 640x360 up: "
            f"{min(large):.3f} to {max(large):.3f}. Library − steps per call on the smallest inputs (64 samples, 16x16): "
            + ", ".join(small) + ".")


def copies(_context, rows, _counts):
    lines = []
    for job, path, copy, words, avoid in COPIES:
        name = f"{job}/1024" if job.startswith("audio") else f"{job}/1920x1080"
        lines.append([JOBS[job] + f", {name.split('/')[1]}", path, ratio(rows[name], path), copy, words, avoid])
    return table(["job", "beside", "library / it", "what the library does more", "the header's words",
                  "can a user avoid it?"], lines)


def quality(_context, rows, _counts):
    lines = []
    for name, row in rows.items():
        if name.startswith("quality/"):
            job = name.split("/")[1]
            keys = [key for key in row if re.match(r"(area|lanczos|original)_", key)]
            for reference in dict.fromkeys(key.split("_")[0] for key in keys):
                values = [f"{row[f'{reference}_{path}']:.1f}" if f"{reference}_{path}" in row else "–"
                          for path in ("library", "libyuv", "zimg")]
                lines.append([JOBS[job], reference] + values)
    return table(["conversion, 1920x1080 the larger side", "reference", "library", "libyuv", "zimg"], lines)


def verdict(row):
    if row["lo_threads"] > 1.05:
        return "helps"
    return "costs" if row["hi_threads"] < 0.95 else "no matter"


def filters(_context, rows, _counts):
    sizes = ("320x180", "1920x1080")
    head = ["filter"]
    for size in sizes:
        head += [f"{size}: one thread", "default threads", "processor time", ""]
    lines = []
    for name in dict.fromkeys(name.split("/")[1] for name in rows if name.startswith("filters/")):
        line = [f"`{name}`"]
        for size in sizes:
            row = rows[f"filters/{name}/{size}"]
            line += [duration(row["t_library"]), duration(row["t_threads"]),
                     f"x {row['c_threads'] / row['c_library']:.2f}", verdict(row)]
        lines.append(line)
    return table(head, lines)


def growth(_context, rows, _counts):
    def live(prefix):
        return {int(name.split("/")[-1]): row for name, row in rows.items() if name.startswith(f"growth/{prefix}/")}

    library, default = live("graphs/library"), live("graphs/default_threads")
    graphs = []
    for count, row in library.items():
        line = [f"{count:,}"]
        for side in (row, default.get(count)):
            line += ["–"] * 4 if side is None else [
                duration(side["create"]), duration(side["destroy"]), f"{side['threads']:.0f}",
                f"{side['bytes'] / 1024:.0f} KiB" if count >= 10 else "–"]
        graphs.append(line)
    out = ["One video graph (hflip, 64x64) more beside those that live, and what each of them holds:",
           table(["live graphs", "library: create", "destroy", "threads each", "memory each",
                  "FFmpeg's default threads: create", "destroy", "threads each", "memory each"], graphs),
           "One call while others live, and one scaler handle more:"]
    lines = [["video filter call, 16x16", f"{count:,}", duration(row["call"])]
             for count, row in live("video_filter_calls").items()]
    lines += [["scaling call, 16x16", f"{count:,}", duration(row["call"])]
              for count, row in live("scale_calls").items()]
    lines += [["scaler: create, destroy", f"{count:,}", f"{duration(row['create'])}, {duration(row['destroy'])}"]
              for count, row in live("scalers/library").items()]
    out.append(table(["what", "live handles", "time"], lines))
    out.append("A round of an audio mix, one 64-sample block for each input and one out:")
    out.append(table(["inputs", "library", "library / input", "/ steps"],
                     [[str(count), duration(row["t_library"]), duration(row["t_library"] / count), ratio(row, "steps")]
                      for count, row in live("audio_mix_inputs").items()]))
    return "\n\n".join(out)


def instructions(_context, _rows, counts):
    return "```\n" + counts.strip() + "\n```"


SECTIONS = {f.__name__: f for f in (machine, summary, jobs, copies, quality, filters, growth, instructions)}


class Plot:
    def __init__(self, width, height):
        self.size = (width, height)
        self.parts = []

    def line(self, x1, y1, x2, y2, colour="#999", width=1.0):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                          f'stroke="{colour}" stroke-width="{width}"/>')

    def dot(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')

    def text(self, x, y, words, anchor="start", weight="normal"):
        words = words.replace("&", "&amp;").replace("<", "&lt;")
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}">{words}</text>')

    def save(self, path):
        width, height = self.size
        with open(path, "w", encoding="utf-8") as file:
            file.write(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
                       f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="11">\n'
                       f'<rect width="{width}" height="{height}" fill="white"/>\n'
                       + "\n".join(self.parts) + "\n</svg>\n")


BLUE, ORANGE = "#2563eb", "#d97706"


def plot_ratios(plot, rows, left, top, width):
    """The medians and quartiles of library / steps, a line for each job and size."""
    low, high = 0.9, 1.1

    def x(value):
        return left + (min(max(value, low), high) - low) / (high - low) * width

    plot.text(left, top, "library / steps: median, quartiles", weight="bold")
    lines = [(f"{job} {size}", row) for job in JOBS for size, row in of_job(rows, job)]
    bottom = top + 26 + 14 * len(lines)
    for tick in (0.9, 0.95, 1.0, 1.02, 1.05, 1.1):
        plot.line(x(tick), top + 22, x(tick), bottom, "#555" if tick == 1 else "#ddd")
        plot.text(x(tick), top + 17, f"{tick:.2f}", "middle")
    for i, (name, row) in enumerate(lines):
        y = top + 34 + 14 * i
        plot.text(left - 8, y + 4, name, "end")
        plot.line(x(row["lo_steps"]), y, x(row["hi_steps"]), y, BLUE, 2)
        plot.dot(x(row["r_steps"]), y, BLUE)
    return bottom


def plot_growth(plot, rows, field, title, left, top, width, height):
    """One figure of the growth table over the live graphs, both axes logarithmic."""
    series = {"library": BLUE, "default_threads": ORANGE}
    points = {}
    for name in series:
        points[name] = [(int(key.split("/")[-1]), field(int(key.split("/")[-1]), row))
                        for key, row in rows.items() if key.startswith(f"growth/graphs/{name}/")]
        points[name] = [(count, value) for count, value in points[name] if value > 0]
    values = [value for line in points.values() for _, value in line]
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    most = math.log10(max(count for line in points.values() for count, _ in line))

    def place(count, value):
        return (left + math.log10(count) / most * width,
                top + height - (math.log10(max(value, 10 ** low)) - low) / max(high - low, 1) * height)

    plot.text(left, top - 10, title, weight="bold")
    for power in range(low, high + 1):
        y = place(1, 10 ** power)[1]
        plot.line(left, y, left + width, y, "#ddd")
        plot.text(left - 6, y + 4, f"{10 ** power:g}", "end")
    for power in range(int(most) + 1):
        plot.text(place(10 ** power, 1)[0], top + height + 15, f"{10 ** power:,}", "middle")
    for name, line in points.items():
        spots = [place(count, value) for count, value in sorted(line)]
        for (x1, y1), (x2, y2) in zip(spots, spots[1:]):
            plot.line(x1, y1, x2, y2, series[name], 2)
        for x, y in spots:
            plot.dot(x, y, series[name])


def draw(rows, path):
    plot = Plot(980, 900)
    bottom = plot_ratios(plot, rows, 210, 24, 330)
    left, width, height = 650, 300, 150
    for i, (title, field) in enumerate((
            ("create and destroy one graph more, µs", lambda n, row: (row["create"] + row["destroy"]) / 1e3),
            ("threads that the live graphs hold", lambda n, row: max(row["threads"] * n, 1)),
            ("memory of each graph, KiB", lambda n, row: row["bytes"] / 1024 if n >= 10 else 0))):
        plot_growth(plot, rows, field, title, left, 50 + i * 220, width, height)
    plot.text(left, 50 + 3 * 220 - 10, "over the number of live graphs;")
    for i, (words, colour) in enumerate((("library (no thread is drawn as 1)", BLUE),
                                         ("FFmpeg's default threads", ORANGE))):
        plot.dot(left + 4, 50 + 3 * 220 + 6 + 16 * i, colour)
        plot.text(left + 14, 50 + 3 * 220 + 10 + 16 * i, words)
    plot.size = (plot.size[0], max(bottom, 760) + 20)
    plot.save(path)


def main():
    if len(sys.argv) not in (3, 5):
        sys.exit(__doc__)
    context, rows = load(sys.argv[1])
    with open(sys.argv[2], encoding="utf-8") as file:
        counts = file.read()
    if len(sys.argv) == 3:
        for section in SECTIONS.values():
            print(section(context, rows, counts), end="\n\n")
        return
    with open(sys.argv[3], encoding="utf-8") as file:
        document = file.read()
    for name, section in SECTIONS.items():
        marker = f"<!-- measured: {name} -->"
        if marker not in document:
            sys.exit(f"{sys.argv[3]} lacks {marker}")
        before, rest = document.split(marker, 1)
        after = rest.split("<!-- end -->", 1)[1]
        document = f"{before}{marker}\n{section(context, rows, counts)}\n<!-- end -->{after}"
    with open(sys.argv[3], "w", encoding="utf-8") as file:
        file.write(document)
    draw(rows, sys.argv[4])


if __name__ == "__main__":
    main()
