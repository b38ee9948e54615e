"""The loads: what is measured, by whom, and how much of it."""

from dataclasses import dataclass, field
from typing import Callable, Dict, List, Optional

from server import MIB

KIB = 1024


@dataclass
class Entrant:
    """A contestant under a load; one contestant may enter more than once."""

    name: str
    program: str
    load: str
    options: Dict[str, object] = field(default_factory=dict)


@dataclass
class Load:
    name: str
    title: str
    entrants: List[Entrant]
    # url(server), or None for datagrams.
    url: Optional[Callable] = None
    # The command line of every entrant.
    options: Dict[str, object] = field(default_factory=dict)
    # Bytes that every entrant has to deliver; 0: not known before.
    expected: int = 0
    # Both: with server and client on a core each, and as the system likes.
    both_ways: bool = False
    # What ratios are to: entrants by name.
    baselines: List[str] = field(default_factory=lambda: ["curl", "socket"])
    streams: int = 0
    # Columns beside those of every load.
    columns: List[str] = field(default_factory=list)


@dataclass
class Scale:
    """How much of everything."""

    rounds: int
    body: int  # bytes of the resource that is read whole
    repeat: int  # how often
    limited: int  # bytes, at 20 MB/s
    skip: int
    stream: Dict[int, int]  # bytes of each stream at full speed, by the number of streams
    paced: int  # seconds
    seeks: int
    calls: int
    opens: int
    datagrams: int  # seconds

    def files(self):
        """The server's, bytes by name."""
        files = {"body.bin": self.body, "limited.bin": self.limited, "skip.bin": self.skip, "1k.bin": KIB}
        files.update({"streams-%d.bin" % count: size for count, size in self.stream.items()})
        return files


FULL = Scale(rounds=7, body=256 * MIB, repeat=4, limited=60000000, skip=96 * MIB,
             stream={10: 16 * MIB, 100: 3 * MIB, 500: MIB}, paced=5, seeks=200, calls=300, opens=1000, datagrams=4)
QUICK = Scale(rounds=3, body=64 * MIB, repeat=2, limited=20000000, skip=24 * MIB,
              stream={10: 4 * MIB, 100: MIB, 500: 256 * KIB}, paced=2, seeks=40, calls=50, opens=1000, datagrams=1)
# For the test that each contestant does each load.
SMOKE = Scale(rounds=1, body=3 * MIB, repeat=1, limited=2000000, skip=MIB,
              stream={10: 256 * KIB, 100: 32 * KIB, 500: 16 * KIB}, paced=1, seeks=5, calls=3, opens=20, datagrams=1)


def everybody(load, *without):
    """All that have that load."""
    return [Entrant(name, name, load) for name in ("mdch", "socket", "curl", "avio", "gst") if name not in without]


def body_loads(scale):
    repeat = scale.repeat
    loads = []
    for scheme in ("http", "https"):
        for block in (4, 32, 256):
            loads.append(Load(
                name="%s-%dk" % (scheme, block),
                title="Whole body over %s, reads of %d KiB" % (scheme, block),
                entrants=everybody("body"),
                url=(lambda server: server.url("body.bin")) if scheme == "http"
                else (lambda server: server.secure_url("body.bin")),
                options={"block": block * KIB, "repeat": repeat},
                expected=repeat * scale.body,
                both_ways=True))
    loads.append(Load(
        name="limited", title="A server held to 20 MB/s, reads of 32 KiB", entrants=everybody("body"),
        url=lambda server: server.url("limited/limited.bin"), options={"block": 32 * KIB},
        expected=scale.limited))
    return loads


def move_loads(scale):
    seeks, opens = scale.seeks, scale.opens
    block = 4 * KIB
    cut_off = Entrant("curl, cut off", "curl", "seek-cut-off")
    return [
        Load(name="seek", title="%d random seeks, each with a read of 64 KiB" % seeks,
             entrants=everybody("seek", "gst") + [cut_off], url=lambda server: server.url("body.bin"),
             options={"block": 64 * KIB, "count": seeks, "size": scale.body},
             expected=seeks * 64 * KIB, columns=["seek_median_us", "seek_most_us", "connections"]),
        Load(name="skip", title="Reads of 4 KiB with skips of 8 KiB between", entrants=everybody("skip", "gst"),
             url=lambda server: server.url("skip.bin"), options={"block": block, "size": scale.skip},
             expected=scale.skip // (3 * block) * block),
        Load(name="open", title="Open, read 1 KiB, close, %d times" % opens, entrants=everybody("open", "gst"),
             url=lambda server: server.url("1k.bin"), options={"block": KIB, "count": opens},
             expected=opens * KIB, columns=["open_median_us", "connections"]),
    ]


def stream_loads(scale):
    loads = []
    without = ("avio", "gst")  # one stream at a time
    for count, size in scale.stream.items():
        name = "streams-%d" % count
        loads.append(Load(
            name=name, title="%d streams at full speed" % count, entrants=everybody("streams", *without),
            url=lambda server, file=name + ".bin": server.url(file), options={"block": 32 * KIB, "streams": count},
            expected=count * size, streams=count, columns=["threads", "kb_per_stream"]))
    for count in scale.stream:
        loads.append(Load(
            name="paced-%d" % count, title="%d streams at 1 MiB/s each" % count,
            entrants=everybody("paced", *without), url=lambda server: server.url("body.bin"),
            options={"block": 32 * KIB, "streams": count, "rate": MIB, "length": scale.paced * MIB},
            expected=count * scale.paced * MIB, streams=count, columns=["threads", "kb_per_stream"]))
    loads.append(Load(
        name="resting", title="One stream at full speed beside others that rest",
        entrants=[Entrant("alone" if count == 0 else "beside %d" % count, "mdch", "resting", {"paused": count})
                  for count in (0, 100, 400)],
        url=lambda server: server.url("body.bin"), options={"block": 32 * KIB, "repeat": scale.repeat},
        expected=scale.repeat * scale.body, baselines=["alone"]))
    return loads


def other_loads(scale):
    loads = [Load(
        name="udp-%dk" % (rate // 1000), title="Datagrams, %d a second" % rate,
        entrants=everybody("datagrams", "curl", "avio", "gst"),
        options={"packets": scale.datagrams * rate, "packet-rate": rate}, baselines=["socket"],
        columns=["us_per_packet", "drop_share"]) for rate in (10000, 50000)]
    loads.append(Load(
        name="file", title="A local file, reads of 32 KiB",
        entrants=[Entrant("mdch", "mdch", "body"), Entrant("fread", "fread", "body")],
        url=lambda server: server.file("body.bin"), options={"block": 32 * KIB, "repeat": 2 * scale.repeat},
        expected=2 * scale.repeat * scale.body, baselines=["fread"]))
    loads.append(Load(
        name="calls", title="Pause, seek and resume of a stream beside three at full speed",
        entrants=[Entrant("mdch", "mdch", "calls")], url=lambda server: server.url("body.bin"),
        options={"block": 32 * KIB, "streams": 3, "count": scale.calls, "size": scale.body},
        baselines=[], columns=[name + which for name in ("pause", "seek", "resume")
                               for which in ("_median_us", "_most_us")]))
    return loads


def all_loads(scale):
    return body_loads(scale) + move_loads(scale) + stream_loads(scale) + other_loads(scale)
