"""What the library is held to."""

from dataclasses import dataclass
from typing import Optional


@dataclass
class Target:
    """A figure of an entrant, alone or as a ratio to another's, and its bound."""

    text: str
    load: str
    figure: str
    most: Optional[float] = None
    least: Optional[float] = None
    to: Optional[str] = None
    of: str = "mdch"
    # None: however it was measured, at best with the cores to itself.
    pinned: Optional[bool] = None
    # The difference to the other's figure counts, and not the ratio.
    difference: bool = False

    @property
    def bound(self):
        return "≤ %s" % number(self.most) if self.most is not None else "≥ %s" % number(self.least)

    def value(self, outcome):
        """None: not measured."""
        for pinned in (True, False) if self.pinned is None else (self.pinned,):
            series = outcome.get((self.load, pinned), {})
            if self.of in series and (self.to is None or self.to in series):
                return self._of(series)
        return None

    def _of(self, series):
        ours = series[self.of]
        if self.to is None:
            return ours.median(self.figure)
        theirs = series[self.to]
        if self.difference:
            pair = ours.median(self.figure), theirs.median(self.figure)
            return None if None in pair else pair[0] - pair[1]
        return ours.ratio(self.figure, theirs)

    def met(self, value):
        return value <= self.most if self.most is not None else value >= self.least


def number(value):
    """Short, and exact where it is a whole number."""
    if value is None:
        return "-"
    if value == int(value) and abs(value) < 1e15:
        return "{:,}".format(int(value))
    if abs(value) >= 1000:
        return "{:,.0f}".format(value)
    return ("%.2f" if abs(value) >= 0.01 else "%.4g") % value


BOTH = "CPU of both sides, to libcurl"

TARGETS = [
    Target("http, 32 KiB, pinned: " + BOTH, "http-32k", "cpu", most=1.10, to="curl", pinned=True),
    Target("http, 32 KiB, pinned: throughput, to the socket loop", "http-32k", "throughput", least=0.85, to="socket",
           pinned=True),
    Target("http, 256 KiB, pinned: " + BOTH, "http-256k", "cpu", most=1.05, to="curl", pinned=True),
    Target("http, 32 KiB, not pinned: voluntary switches per GiB", "http-32k", "switches_per_gib", most=20000,
           pinned=False),
    Target("https, 32 KiB: " + BOTH, "https-32k", "cpu", most=1.13, to="curl"),
    Target("https, 32 KiB: throughput, to the socket loop", "https-32k", "throughput", least=0.9, to="socket"),
    Target("server at 20 MB/s: " + BOTH, "limited", "cpu", most=1.0, to="curl"),
    Target("random seek and 64 KiB: median, to libcurl", "seek", "seek_median_us", most=2.0, to="curl"),
    Target("1,000 opens of 1 KiB: connections", "open", "connections", most=1),
    Target("1,000 opens of 1 KiB: " + BOTH, "open", "cpu", most=1.2, to="curl"),
    Target("500 streams: threads of the library", "streams-500", "threads", most=1),
    Target("500 streams: memory, KB each", "streams-500", "kb_per_stream", most=250),
    Target("500 streams: share of the bytes that came", "streams-500", "complete", least=1),
    Target("100 streams at 1 MiB/s: " + BOTH, "paced-100", "cpu", most=1.5, to="curl"),
    Target("one busy stream beside 400 that rest: CPU of both sides, to alone", "resting", "cpu", most=1.15,
           of="beside 400", to="alone"),
    Target("one busy stream beside 400 that rest: time, to alone", "resting", "wall", most=1.15, of="beside 400",
           to="alone"),
    Target("pause beside three busy streams: median, µs", "calls", "pause_median_us", most=2000),
    Target("seek beside three busy streams: median, µs", "calls", "seek_median_us", most=2000),
    Target("resume beside three busy streams: median, µs", "calls", "resume_median_us", most=2000),
    Target("10,000 datagrams a second: CPU per packet, to the socket loop", "udp-10k", "us_per_packet", most=1.2,
           to="socket"),
    Target("50,000 datagrams a second: CPU per packet, to the socket loop", "udp-50k", "us_per_packet", most=1.2,
           to="socket"),
    # A share, since neither is ever the same twice.
    Target("10,000 datagrams a second: share dropped, less the socket loop's", "udp-10k", "drop_share", most=0.001,
           to="socket", difference=True),
    Target("50,000 datagrams a second: share dropped, less the socket loop's", "udp-50k", "drop_share", most=0.001,
           to="socket", difference=True),
    Target("local file, 32 KiB: CPU, to fread", "file", "client", most=1.1, to="fread"),
]
