"""The arithmetic: from what contestants print to the figures that are compared."""

GIB = 1024.0 ** 3


def median(values):
    """The middle one, or the mean of the two in the middle; None of none."""
    ordered = sorted(values)
    if not ordered:
        return None
    half = len(ordered) // 2
    return ordered[half] if len(ordered) % 2 else (ordered[half - 1] + ordered[half]) / 2.0


def ratio(ours, theirs):
    """The median of the quotients of runs that were neighbours in time, so that a slow minute slows both sides.

    None where nothing can be divided.
    """
    return median([a / b for a, b in zip(ours, theirs) if a is not None and b])


def figures_of(sample):
    """What is compared, of one run: sample is the contestant's line of JSON, with what the runner knows beside it."""
    bytes_ = sample["bytes"]
    cpu = sample["user"] + sample["system"] + sample["server"]
    figures = {
        "cpu": cpu,
        "client": sample["user"] + sample["system"],
        "server": sample["server"],
        "wall": sample["wall"],
        "bytes": bytes_,
        "throughput": bytes_ / 1e6 / sample["wall"] if sample["wall"] > 0 else None,
        "cpu_per_gib": cpu * GIB / bytes_ if bytes_ else None,
        "switches_per_gib": sample["voluntary"] * GIB / bytes_ if bytes_ else None,
        "preempted": sample["involuntary"],
        "peak_mib": sample["peak_kib"] / 1024.0,
        "complete": bytes_ / sample["expected"] if sample.get("expected") else None,
        "connections": sample.get("connections"),
    }
    if "threads" in sample:
        # Beside the contestant's own one. Contestants with a thread per stream count them all.
        figures["threads"] = sample["threads"] - 1
    if sample.get("streams"):
        grown = (sample["peak_kib"] - sample["memory_before_kib"]) * 1024.0
        figures["kb_per_stream"] = grown / 1000.0 / sample["streams"]
    if sample.get("packets"):
        figures["us_per_packet"] = (sample["user"] + sample["system"]) * 1e6 / sample["packets"]
    if "dropped" in sample:
        figures["drop_share"] = sample["dropped"] / sample["sent"]
    for name, values in sample["latencies"].items():
        figures[name + "_median_us"] = median(values)
        figures[name + "_most_us"] = max(values) if values else None
    return figures


class Series:
    """All runs of one contestant under one load."""

    def __init__(self):
        self.samples = []

    def add(self, sample):
        self.samples.append(sample)

    def figures(self):
        """The names of all that there are."""
        return list(figures_of(self.samples[0])) if self.samples else []

    def values(self, figure):
        return [figures_of(sample).get(figure) for sample in self.samples]

    def median(self, figure):
        return median([value for value in self.values(figure) if value is not None])

    def ratio(self, figure, other):
        return ratio(self.values(figure), other.values(figure)) if other else None
