"""The rows of the table: what is compared, how, and what is wanted of it."""

import dataclasses
import statistics
import typing

# Time that the processor was used, for what never waits; time that passed, for
# the rest.
CPU = "cpu"
WALL = "wall"


@dataclasses.dataclass
class Row:
    """One line of the table.

    `ratios` gets a function from the name of a benchmark to what it took in one
    round, and all names.  Gives {input: ratio}; the row shows the input whose
    median over the rounds is the worst.
    """
    subject: str
    work: str
    peer: str
    bar: float
    aim: float
    measure: str
    ratios: typing.Callable


def over(ours, *peers):
    """Ours over the fastest peer."""
    return lambda took, names: {
        ours: took(ours) / min(took(peer) for peer in peers)}


def each_over(prefix, peer):
    """Ours over the peer, for each benchmark with that beginning."""
    return lambda took, names: {
        name: took(name) / took(name[:-len("ours")] + peer) for name in names
        if name.startswith(prefix) and name.endswith("/ours")}


def mean_over(prefix, peer):
    """The geometric mean over all benchmarks with that beginning."""
    pairs = each_over(prefix, peer)
    return lambda took, names: {
        prefix: statistics.geometric_mean(pairs(took, names).values())}


def growth(took, names):
    """Twice the text over once, for each of the worst inputs."""
    return {name: took(name) / took(name.replace("/20000/", "/10000/"))
            for name in names
            if name.startswith("Worst/") and name.endswith("/20000/ours")}


PATTERNS = [
    Row("patterns", "the system's own patterns: hits, geometric mean",
        "PCRE2 interpreter", 0.6, 0.35, CPU, mean_over("Hits/", "pcre2")),
    Row("patterns", "the same: near misses", "PCRE2 interpreter", 0.6, 0.25,
        CPU, mean_over("Misses/", "pcre2")),
    Row("patterns", "pattern seen for the first time: compile and match",
        "PCRE2 interpreter", 1.0, 0.5, CPU,
        over("FirstUse/ours", "FirstUse/pcre2")),
    Row("patterns", "worst inputs: the worst of them", "RE2", 2.0, 1.0, CPU,
        each_over("Worst/", "re2")),
    Row("patterns", "worst inputs: twice the text", "ourselves", 2.2, 2.2, CPU,
        growth),
]


def database_rows():
    rows = []
    for reader in ("", "/reader"):
        bar, aim = (0.7, 0.2) if reader else (0.4, 0.15)
        beside = ", beside a reader" if reader else ""
        for unit in ("account", "field"):
            rows.append(Row(
                "database", f"100,000 accounts made{beside}",
                f"LMDB, one transaction per {unit}", bar, aim, WALL,
                over("Create/ours" + reader, f"Create/lmdb-{unit}{reader}")))
        rows.append(Row(
            "database", f"single `Set` at 100,000 accounts{beside}",
            "LMDB, one commit each", bar, aim, WALL,
            over("Set/ours" + reader, "Set/lmdb" + reader)))
    rows.append(Row("database", "one account at 100,000",
                    "ourselves at 1,000", 1.3, 1.1, CPU,
                    over("Growth/100000", "Growth/1000")))
    for size, shown in (("100000", "100,000"), ("1000000", "1,000,000")):
        for kind, aim in (("hit", 0.75), ("miss", 0.4)):
            rows.append(Row("database", f"address look-up at {shown}: {kind}",
                            "LMDB", 1.0, aim, CPU,
                            over(f"LookUp/{size}/{kind}/ours",
                                 f"LookUp/{size}/{kind}/lmdb")))
        rows.append(Row("database", f"open and first look-up at {shown}",
                        "LMDB", 2.0, 0.6, CPU,
                        over(f"Open/{size}/ours", f"Open/{size}/lmdb")))
    rows.append(Row("database", "durable creation, one sync per account",
                    "the faster of LMDB and SQLite", 1.0, 0.7, WALL,
                    over("Durable/ours", "Durable/lmdb", "Durable/sqlite")))
    return rows


IMPORT = [
    Row("import", "`AddUserAccounts`, per user, 100,000 users",
        "ourselves at 1,000", 1.5, 1.2, CPU,
        lambda took, names: took("distinct/100000") / took("distinct/1000")
        / 100),
    Row("import", "`AddUserAccounts`, 100,000 users named \"Student\"",
        "ourselves, distinct names", 1.3, 1.1, CPU,
        over("student/100000", "distinct/100000")),
]

CONVERSION = [
    Row("conversion", "mailbox of 128 MB, median message 8 KB",
        "`git mailsplit`", 0.9, 0.65, CPU,
        over("large/ours", "large/mailsplit")),
    Row("conversion", "mailbox of 128 MB, median message 8 KB", "`cp`", 4.0,
        2.5, CPU, over("large/ours", "large/cp")),
    Row("conversion", "20,000 tiny messages", "`git mailsplit`", 1.05, 0.85,
        CPU, over("tiny/ours", "tiny/mailsplit")),
    Row("memory", "memory of a conversion of 4 GB", "ourselves, 4 MB", 1.2,
        1.0, "memory", over("Memory/4GB", "Memory/4MB")),
]

LISTS = [
    Row("lists", "1,000,000 lines read into a list", "Python `readlines`", 1.2,
        0.6, CPU, over("Read/ours", "Read/python")),
    Row("lists", "`Unique` of them", "Python dict", 1.0, 0.4, CPU,
        over("Unique/ours", "Unique/python")),
    Row("lists", "`Sort` of them", "`std::sort`", 1.0, 0.5, CPU,
        over("Sort/ours", "Sort/std")),
    Row("lists", "`Grep` of them", "Perl `grep`", 0.5, 0.25, CPU,
        over("Grep/ours", "Grep/perl")),
]

START = [
    Row("start", "start to the first question", "dash printing one", 1.6, 1.05,
        CPU, over("ours", "dash")),
]

ROWS = PATTERNS + database_rows() + IMPORT + CONVERSION + LISTS + START
