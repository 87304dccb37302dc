"""Reports measurements as a table, JSON and charts, and compares them with recorded ones."""
import json
import os
import subprocess

TOLERANCE = 0.15  # a ratio got worse if it exceeds the recorded one by this and its own spread


def duration(seconds):
    for unit, factor in (("s", 1), ("ms", 1e3)):
        if seconds * factor >= 1:
            return f"{seconds * factor:.2f} {unit}"
    return f"{seconds * 1e6:.0f} µs"


def verdict(goal):
    if goal["limit"] is None:
        return ""
    return "met" if goal["median"] <= goal["limit"] else "MISSED"


def number(value, unit):
    return f"{value:.0f} {unit}" if unit else f"{value:.2f}"


def goal_row(goal):
    unit = goal.get("unit", "")
    spread = "" if goal["low"] == goal["high"] else f"{goal['low']:.2f}..{goal['high']:.2f}"
    limit = "" if goal["limit"] is None else f"<= {number(goal['limit'], unit)}"
    return [goal["against"], number(goal["median"], unit), spread, limit, verdict(goal)]


def rows(scenes):
    """Rows (scene, side, time, processor time, against, ratio, spread, goal, verdict): the sides of a
    scene next to its goals."""
    for name, measured in scenes.items():
        if "error" in measured:
            yield [name, measured["title"], "", "", "", "", "", "", f"not run: {measured['error']}"]
            continue
        sides = [[side, duration(v["wall"]), duration(v["cpu"]) if v["cpu"] else ""]
                 for side, v in measured["sides"].items()]
        goals = [goal_row(goal) for goal in measured["goals"]]
        yield [name, measured["title"]] + [""] * 7
        for at in range(max(len(sides), len(goals))):
            side = sides[at] if at < len(sides) else [""] * 3
            goal = goals[at] if at < len(goals) else [""] * 5
            yield [""] + side + goal


def table(scenes):
    head = ["", "side", "time", "cpu", "against", "ratio", "spread", "goal", ""]
    lines = [head] + list(rows(scenes))
    # A scene's title may extend over the following columns.
    widths = [max(len(line[i]) for line in lines if i != 1 or line[0] == "") for i in range(len(head))]
    return "\n".join("  ".join(cell.ljust(w) for cell, w in zip(line, widths)).rstrip() for line in lines)


def markdown(scenes):
    """The tables of docs/performance.md."""
    ratios = ["| Scene | Work | Against | Ratio | Spread | Goal | |", "|---|---|---|---|---|---|---|"]
    times = ["| Scene | Times (median) |", "|---|---|"]
    for name, measured in scenes.items():
        if "error" in measured:
            continue
        first = f"| {name} | {measured['title']} |"
        for goal in measured["goals"]:
            against, ratio, spread, limit, met = goal_row(goal)
            met = met.replace("MISSED", "**missed**")
            ratios.append(f"{first} {against} | {ratio} | {spread} | {limit.replace('<=', '≤')} | {met} |")
            first = "| | |"
        sides = [f"{side.replace('ours', 'zncontainer')} {duration(v['wall'])}"
                 for side, v in measured["sides"].items()]
        if sides:
            times.append(f"| {name} | {'; '.join(sides)} |")
    return "\n".join(ratios + [""] + times) + "\n"


def chart(name, measured, out):
    """Draws one bar for each side of a scene."""
    path = f"{out}/{name.lower()}.png"
    data = "\n".join(f'"{side}" {v["wall"] * 1e3} {v["spread"][0] * 1e3} {v["spread"][2] * 1e3}'
                     for side, v in measured["sides"].items())
    script = f"""
set terminal pngcairo size 720,360 font "sans,10" noenhanced
set output "{path}"
set title "{name}: {measured['title']} (milliseconds, median and quartiles)"
set style fill solid 0.6
set boxwidth 0.6
set yrange [0:*]
set grid ytics
set xtics nomirror
unset key
$data << EOD
{data}
EOD
plot $data using 0:2:xtic(1) with boxes lc rgb "#4477aa", \\
     $data using 0:2:3:4 with yerrorbars lc rgb "#222222" pt 0
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def write(results, out, order):
    """Updates the files of results, which have the last result of every scene run into this directory, as
    JSON and as tables for docs/performance.md. Draws charts for plain scheduling."""
    path = f"{out}/results-{results['scheduling']}.json"
    merged = dict(results)
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            merged["scenes"] = {**json.load(file)["scenes"], **results["scenes"]}
    merged["scenes"] = {name: merged["scenes"][name] for name in order if name in merged["scenes"]}
    with open(path, "w", encoding="utf-8") as file:
        json.dump(merged, file, indent=1)
        file.write("\n")
    with open(f"{out}/results-{results['scheduling']}.md", "w", encoding="utf-8") as file:
        file.write(markdown(merged["scenes"]))
    for name, measured in results["scenes"].items():
        if measured["sides"] and results["scheduling"] == "plain":
            chart(name, measured, out)


def record(results, path):
    recorded = {}
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            recorded = json.load(file)
    scenes = recorded.setdefault(results["scheduling"], {})
    for name, measured in results["scenes"].items():
        if "error" not in measured:
            scenes[name] = {goal["against"]: {k: round(goal[k], 3) for k in ("low", "median", "high")}
                            for goal in measured["goals"]}
    with open(path, "w", encoding="utf-8") as file:
        json.dump(recorded, file, indent=1)
        file.write("\n")


def moved(results, path):
    """Returns (text, whether a ratio got worse). Only scenes recorded with the same scheduling are compared."""
    with open(path, encoding="utf-8") as file:
        recorded = json.load(file).get(results["scheduling"], {})
    lines = []
    worse = False
    for name, measured in results["scenes"].items():
        for goal in measured["goals"]:
            before = recorded.get(name, {}).get(goal["against"])
            if before is None or before["median"] <= 0:
                continue
            change = goal["median"] / before["median"] - 1
            is_worse = change > TOLERANCE and goal["low"] > before["high"]
            is_better = change < -TOLERANCE and goal["high"] < before["low"]
            worse = worse or is_worse
            if is_worse or is_better:
                lines.append(f"{name} {goal['against']}: {before['median']:.2f} -> {goal['median']:.2f}, "
                             f"{'WORSE' if is_worse else 'better'} by {abs(change) * 100:.0f}%")
    return "\n".join(lines) or "nothing moved", worse
