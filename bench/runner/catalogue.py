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


def sizes(quick):
    """The server's files."""
    return {
        "body.bin": (64 if quick else 256) * MIB,
        "limited.bin": 20000000 if quick else 60000000,
        "skip.bin": (24 if quick else 96) * MIB,
        "1k.bin": KIB,
        "streams-10.bin": (4 if quick else 16) * MIB,
        "streams-100.bin": (1 if quick else 3) * MIB,
        "streams-500.bin": (256 if quick else 1024) * KIB,
    }


def everybody(load, *without):
    """All that have that load."""
    return [Entrant(name, name, load) for name in ("mdch", "socket", "curl", "avio", "gst") if name not in without]


def body_loads(files, quick):
    repeat = 2 if quick else 4
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
                expected=repeat * files["body.bin"],
                both_ways=True))
    loads.append(Load(
        name="limited", title="A server held to 20 MB/s, reads of 32 KiB", entrants=everybody("body"),
        url=lambda server: server.url("limited/limited.bin"), options={"block": 32 * KIB},
        expected=files["limited.bin"]))
    return loads


def move_loads(files, quick):
    seeks = 40 if quick else 200
    opens = 1000
    block = 4 * KIB
    cut_off = Entrant("curl, cut off", "curl", "seek-cut-off")
    return [
        Load(name="seek", title="%d random seeks, each with a read of 64 KiB" % seeks,
             entrants=everybody("seek", "gst") + [cut_off], url=lambda server: server.url("body.bin"),
             options={"block": 64 * KIB, "count": seeks, "size": files["body.bin"]},
             expected=seeks * 64 * KIB, columns=["seek_median_us", "seek_most_us", "connections"]),
        Load(name="skip", title="Reads of 4 KiB with skips of 8 KiB between", entrants=everybody("skip", "gst"),
             url=lambda server: server.url("skip.bin"), options={"block": block, "size": files["skip.bin"]},
             expected=files["skip.bin"] // (3 * block) * block),
        Load(name="open", title="Open, read 1 KiB, close, %d times" % opens, entrants=everybody("open", "gst"),
             url=lambda server: server.url("1k.bin"), options={"block": KIB, "count": opens},
             expected=opens * KIB, columns=["open_median_us", "connections"]),
    ]


def stream_loads(files, quick):
    loads = []
    three = ("avio", "gst")
    for count in (10, 100, 500):
        name = "streams-%d" % count
        loads.append(Load(
            name=name, title="%d streams at full speed" % count, entrants=everybody("streams", *three),
            url=lambda server, file=name + ".bin": server.url(file), options={"block": 32 * KIB, "streams": count},
            expected=count * files[name + ".bin"], streams=count, columns=["threads", "kb_per_stream"]))
    seconds = 2 if quick else 5
    for count in (10, 100, 500):
        loads.append(Load(
            name="paced-%d" % count, title="%d streams at 1 MiB/s each" % count,
            entrants=everybody("paced", *three), url=lambda server: server.url("body.bin"),
            options={"block": 32 * KIB, "streams": count, "rate": MIB, "length": seconds * MIB},
            expected=count * seconds * MIB, streams=count, columns=["threads", "kb_per_stream"]))
    repeat = 1 if quick else 4
    loads.append(Load(
        name="resting", title="One stream at full speed beside others that rest",
        entrants=[Entrant("alone" if count == 0 else "beside %d" % count, "mdch", "resting", {"paused": count})
                  for count in (0, 100, 400)],
        url=lambda server: server.url("body.bin"), options={"block": 32 * KIB, "repeat": repeat},
        expected=repeat * files["body.bin"], baselines=["alone"]))
    return loads


def other_loads(files, quick):
    seconds = 1 if quick else 4
    repeat = 4
    loads = [Load(
        name="udp-%dk" % (rate // 1000), title="Datagrams, %d a second" % rate,
        entrants=everybody("datagrams", "curl", "avio", "gst"),
        options={"packets": seconds * rate, "packet-rate": rate}, baselines=["socket"],
        columns=["us_per_packet", "drop_share"]) for rate in (10000, 50000)]
    loads.append(Load(
        name="file", title="A local file, reads of 32 KiB",
        entrants=[Entrant("mdch", "mdch", "body"), Entrant("fread", "fread", "body")],
        url=lambda server: server.file("body.bin"), options={"block": 32 * KIB, "repeat": repeat},
        expected=repeat * files["body.bin"], baselines=["fread"]))
    loads.append(Load(
        name="calls", title="Pause, seek and resume of a stream beside three at full speed",
        entrants=[Entrant("mdch", "mdch", "calls")], url=lambda server: server.url("body.bin"),
        options={"block": 32 * KIB, "streams": 3, "count": 50 if quick else 300, "size": files["body.bin"]},
        baselines=[], columns=[name + which for name in ("pause", "seek", "resume")
                               for which in ("_median_us", "_most_us")]))
    return loads


def all_loads(quick):
    files = sizes(quick)
    return (body_loads(files, quick) + move_loads(files, quick) + stream_loads(files, quick)
            + other_loads(files, quick))
