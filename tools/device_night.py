"""Judges a night of tools/device by what its board has left in a directory."""

import collections
import re

GROWTH = 512  # KB that memory may differ between the middle and the end.
WORD = re.compile(rb"([a-z]+)(\d{6})-(\d+) ")


def lines_of(path):
    return path.read_text().splitlines() if path.exists() else []


def read_hours(directory):
    """The figures of each hour by name."""
    return [
        dict(word.split("=") for word in line.split()) for line in lines_of(directory / "hours")
    ]


def read_dropped(directory):
    """For each message how many words are to be heard."""
    words = {}
    for line in lines_of(directory / "dropped"):
        name, count = line.split()
        words[name] = list(range(1, int(count) + 1)) * (2 if name.startswith("twice") else 1)
    return words


def read_heard(directory):
    """For each message the numbers of its words, as heard; and the messages as they began."""
    heard, begun = collections.defaultdict(list), {}
    for kind, number, word in WORD.findall((directory / "heard.wav").read_bytes()):
        name = (kind + number).decode()
        heard[name].append(int(word))
        begun.setdefault(kind, [])
        if name not in begun[kind]:
            begun[kind].append(name)
    return heard, begun


def is_in_order(heard, expected):
    """Whether it is what was expected, perhaps with words left out."""
    rest = iter(expected)
    return all(word in rest for word in heard)


def judge(directory):
    """Whether the night was fine, and a table of it."""
    hours, dropped = read_hours(directory), read_dropped(directory)
    heard, begun = read_heard(directory)
    failed = set(re.findall(r"[a-z]+\d{6}", " ".join(lines_of(directory / "failed"))))
    order = [pair for names in begun.values() for pair in zip(names, sorted(names))]
    wrong = {
        "lost": [n for n, all_ in dropped.items() if len(heard[n]) < len(all_) and n not in failed],
        "doubled": [n for n in heard if len(heard[n]) > len(dropped.get(n, ()))],
        "out of order": [n for n, all_ in dropped.items() if not is_in_order(heard[n], all_)]
        + [name for name, rank in order if name != rank],
        "problems": lines_of(directory / "problems") + lines_of(directory / "errors"),
    }
    first, middle, last = (hours[index] for index in (0, len(hours) // 2, -1))
    restarts = int(last["restarts"]) - int(last["ordered"])
    wrong["restarts that were not ordered"] = ["daemon"] * restarts
    wrong["restarts that were not ordered"] += ["station"] * (first["station"] != last["station"])
    wrong["files lost at a restart"] = ["file"] * int(last["lost"])
    wrong["sectors written while idle"] = ["sector"] * sum(int(hour["written"]) for hour in hours)
    wrong["memory or descriptors grown"] = [
        f"{key}: {middle[key]} to {last[key]}"
        for key, most in (("KB", GROWTH), ("descriptors", 0))
        if int(last[key]) > int(middle[key]) + most
    ]
    kinds = collections.Counter(lines_of(directory / "disturbed"))
    text = [
        f"device time           {int(last['time']) / 3600:.1f} hours, of these "
        f"{sum(int(hour['idle']) for hour in hours) / 3600:.1f} idle and looked at",
        f"messages              {len(dropped)}, words {sum(map(len, dropped.values()))}",
        f"refused by full flash {len(lines_of(directory / 'refused'))}",
        f"failed on purpose     {len(failed)} messages with a piece of which the translator failed",
        f"restarts as ordered   {last['ordered']}",
        "disturbances          " + ", ".join(f"{kind} {n}" for kind, n in sorted(kinds.items())),
    ]
    text += [f"{title:33} {len(names)} {' '.join(names[:5])}" for title, names in wrong.items()]
    for key in [key for key in last if key.startswith("KB")] + ["descriptors"]:
        text.append(
            f"{key:24}" + "".join(f"{hour.get(key, ''):>7}" for hour in (first, middle, last))
        )
    return bool(dropped) and not any(wrong.values()), "\n".join(text)
