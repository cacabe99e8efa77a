"""The server's databases on a throw-away host, as text."""

from harness import BUILD

CONFIG = "/opt/vellumcraft/config"


def load(host, name, text):
    """Makes a database from text; it belongs to the mail owner."""
    path = f"{CONFIG}/{name}"
    host.sh(f"'{BUILD}/vcdb' load {path} && chown vmail:vmail {path}",
            stdin=text.encode("utf-8", "surrogateescape"))


def dump(host, name):
    return host.sh(f"'{BUILD}/vcdb' dump {CONFIG}/{name}")


def values(host, name, section, key):
    """The values of a key; None when there is none."""
    text = host.sh(f"'{BUILD}/vcdb' get {CONFIG}/{name} '{section}' '{key}' "
                   "|| echo none-such", check=False)
    return None if text == "none-such\n" else text.splitlines()


def account(host, uid, field):
    return values(host, "Accounts", "/" + uid, field)


def sound(host, *names):
    """Whether `vcdb check` finds nothing wrong."""
    paths = " ".join(f"{CONFIG}/{name}" for name in names)
    return host.sh(f"'{BUILD}/vcdb' check {paths} && echo sound",
                   check=False) == "sound\n"
