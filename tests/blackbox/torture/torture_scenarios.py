"""The roads that runs are tried on: what the device is, what the client says, what is asked for."""

import re
from dataclasses import dataclass, field

from import_run import (DEFAULT, THEME, Element, conn, connections_file, connections_path, entry,
                        export, folder, key, printed, registry_of, settings_of, type_path)

NEVER = frozenset({"FAIL_FORK"})  # no road makes such a call
NOT_ASKING = frozenset({"FAIL_POPEN", "FAIL_PIPE", "FAIL_FDOPEN"})
NOT_WRITING = frozenset({"FAIL_FWRITE", "SHORT_FWRITE", "FAIL_SETVBUF"})

EVERY = 10_000


@dataclass(frozen=True)
class Scenario:
    """`variants` make other whole outputs of the whole one: what a failure may cost."""

    name: str
    arguments: tuple
    registry_type: str
    answers: dict = field(default_factory=dict)
    identity: dict = field(default_factory=dict)
    file: str | None = None  # of an import
    sessions: dict = field(default_factory=dict)
    variants: dict = field(default_factory=dict)
    never: frozenset = frozenset()  # the kinds of calls that are not reached
    faults: frozenset | None = None  # the client's, where not all of them are tried
    allocations: int = 12  # how many of them fail in turn, where not every place is asked for
    registry: str | None = None  # the reference client holds it; otherwise the answers are all
    result: int = 0
    imports: bool = False

    @property
    def removes(self):
        return "-r" in self.arguments


# What the client does wrong in other scenarios as well is not all tried in these.
AS_ELSEWHERE = frozenset({"killed", "half"})
OF_REFERENCE_CLIENT = frozenset({"killed", "three-words", "crlf", "half"})


def get(name, *, typed="RDP", registry_type="freerdp", holds, answers=None, **others):
    exported = {} if holds is None else {f"export {type_path(registry_type)}": holds.printed()}
    return Scenario(f"get-{name}", ("-get", typed, "-f", "out.xml"), registry_type,
                    {**exported, **(answers or {})}, **others)


def set_(name, file, *, typed="RDP", registry_type="freerdp", holds=None, listed=(), answers=None,
         remove=False, imports=True, **others):
    path = connections_path(registry_type)
    listing = {f"get {path}": "".join(f"dir {path}/{each}\n" for each in listed)}
    icons = {f"get {path}/{each}/hasDesktopIcon": f"{path}/{each}/hasDesktopIcon 1\n"
             for each in listed}
    exported = {} if holds is None else {f"export {type_path(registry_type)}": holds.printed()}
    return Scenario(f"set-{name}", ("-set", typed, "-f", "in.xml", *(["-r"] if remove else [])),
                    registry_type, {**exported, **listing, **icons, **(answers or {})}, file=file,
                    imports=imports, **others)


def becomes(document):
    """A variant that is this document, whatever the whole one is."""
    data = printed(document).encode()
    return lambda whole: data


def default_is(identifier):
    return {f"get {DEFAULT}": f"{DEFAULT} {identifier}\n"}


def theme_is(name):
    return {f"get {THEME}": f"{THEME} {name}\n"}


ONE = conn("id-1", "Office", key("user", "till <&> 7"))
TWO = conn("id-2", "Home")
THREE = conn("id-3", "Only here")
UNMARKED = {"unmarked": lambda whole: whole.replace(b' Default="yes"', b"")}
# The newer layout's export without the default's name, and on a device whose build got lost.
OTHER_CHOICES = {"empty": lambda whole: b"<RDP/>\n",
                 "all": becomes(connections_file(export(ONE, TWO), entry("Office"), entry("Home")))}
CARRIAGE_RETURN = 'PRODUCT_NAME="Sylvex"\nPRODUCT_CONFIG="zero"\nPRODUCT_VERSION="6.1"\n# \r\n'

# Terminal sessions: the first connection's label stands ahead of its session, the second's behind.

KSS = "<Session name='{}'><Host port='23'/></Session>"
WS = "<Workspace>full screen</Workspace>"
SESSIONS = {"a.kss": KSS.format("a"), "a.ws": WS, "b.kss": KSS.format("b"), "b.ws": WS}
TERMINALS = Element("Profile", children=[
    registry_of(folder("connections", conn("id-1", "A", key("kssName", "a.kss")),
                       conn("id-2", None, key("kssName", "b.kss"), key("label", "B")))),
    settings_of()])


def connection_of(name, pattern, replacement):
    """A variant in which this pattern is replaced in the connection of that name."""
    block = re.compile(rb'  <Connection Name="%s".*?\n  </Connection>\n' % name, re.DOTALL)
    part = re.compile(pattern, re.DOTALL)
    return lambda whole: block.sub(lambda found: part.sub(replacement, found[0]), whole)


WINDOW = rb"    <WS>.*?</WS>\n"
TERMINAL_VARIANTS = {
    "A without window": connection_of(b"A", WINDOW, b""),
    "B without window": connection_of(b"B", WINDOW, b""),
    "A without session": connection_of(
        b"A", rb' TavrinName.*', b"/>\n"),
    "B with empty session": connection_of(b"B", rb"<KSS>.*?</KSS>", b"<KSS/>"),
}

GETS = [
    get("classic", holds=export(ONE, TWO), never=NOT_ASKING),
    get("classic-by-imageid", holds=export(ONE, TWO), identity={"identity": "imageid",
                                                                "image_type": 5},
        typed="Xdmcp", registry_type="xdmcp", never=NOT_ASKING | {"FAIL_FGETS"}),
    get("zero-client", holds=export(ONE, TWO), identity={"zero": True}, answers=default_is("id-1"),
        variants=UNMARKED),
    get("product-by-pipeline", holds=export(ONE, TWO), identity={"systeminfo": CARRIAGE_RETURN},
        answers=default_is("id-1"), variants=UNMARKED),
    get("newer-layout", holds=export(ONE, TWO), identity={"image_type": 6},
        answers=default_is("id-1"), variants=OTHER_CHOICES),
    get("newer-layout-other-default", holds=None, identity={"image_type": 6},
        answers=default_is("xenDefault"), allocations=EVERY),
    get("terminal-sessions", typed="Tavrin", registry_type="tavrin", holds=TERMINALS,
        sessions=SESSIONS, variants=TERMINAL_VARIANTS, never=NOT_ASKING),
    get("no-connection", holds=export(), never=NOT_ASKING),
    get("by-shell", typed="a~b", registry_type="a~b", holds=export(ONE), never=NOT_ASKING),
]

BOTH = connections_file(export(ONE, TWO), entry("Office"), entry("Home", "no"))
MARKED = connections_file(export(ONE, TWO, config="x"), entry("Office", Default="yes"),
                          entry("Home"))
QUOTED = "it's a $(>owned)"
OLD = {"a.kss": "old", "a.ws": "old"}
SESSION_FILE = connections_file(
    export(conn("id-1", "A")), entry("A", KSSFile="a", children=[
        ("KSS", f"<S>{'session ' * 40}</S>"), ("WS", f"<W>{'window ' * 40}</W>")]), root="Tavrin")

SETS = [
    set_("into-empty", BOTH, holds=export(), faults=AS_ELSEWHERE),
    set_("merge", BOTH, holds=export(conn("id-1", "Other"), THREE), listed=["id-1", "id-3"],
         variants={"unmerged": becomes(export(ONE))}, allocations=40),
    set_("replace", BOTH, holds=export(), listed=["id-1", "id-3"], remove=True),
    set_("newer-layout", connections_file(export(ONE, TWO), entry("Office"), entry("Home")),
         holds=export(THREE), listed=["id-7"], identity={"image_type": 6},
         answers=default_is("id-7"),
         variants={"all merged": becomes(export(ONE, TWO, THREE)),
                   "with no product": becomes(export(ONE, TWO, config=""))}),
    set_("zero-client", MARKED, holds=export(THREE), listed=["id-1"], remove=True,
         identity={"zero": True}, answers={**default_is("id-1"), **theme_is("freerdp")},
         variants={"unmerged": becomes(export(ONE, TWO, config="zero"))}),
    set_("terminal-sessions", SESSION_FILE, typed="Tavrin", registry_type="tavrin", sessions=OLD,
         holds=export()),
    set_("no-connection", "<RDP/>\n", imports=False, never=NOT_WRITING,
         allocations=EVERY),
    set_("quoted", connections_file(export(conn(QUOTED, "A")), entry("A")), holds=export(),
         listed=["it's"], identity={"zero": True},
         answers={**default_is("id'7"), **theme_is("freerdp")}, faults=AS_ELSEWHERE),
]

# In front of the reference client, which says what a listing and an export look like

REGISTRY = """<NodeDir name="root">
  <NodeDir name="ConnectionManager">
    <NodeKey name="defaultConnection"><NodeParam type="string">id-1</NodeParam></NodeKey>
  </NodeDir>
  <NodeDir name="ConnectionType">
    <NodeDir name="freerdp">
      <NodeDir name="connections">
        <NodeDir name="id-1">
          <NodeKey name="label"><NodeParam type="string">Office</NodeParam></NodeKey>
          <NodeKey name="hasDesktopIcon"><NodeParam type="string">1</NodeParam></NodeKey>
        </NodeDir>
      </NodeDir>
    </NodeDir>
  </NodeDir>
</NodeDir>
"""

PLACED = Element("NodeDir", {"name": "freerdp", "path": type_path("freerdp")}, [
    folder("connections", conn("id-1", "Other", key("hasDesktopIcon", "0")))])
OWN_EXPORT = Element("Profile", children=[Element("ProfileRegistry", children=[PLACED]),
                                          settings_of()])

WITH_REFERENCE_CLIENT = [
    get("reference-client", holds=None, registry=REGISTRY, identity={"zero": True},
        variants=UNMARKED, faults=OF_REFERENCE_CLIENT),
    set_("reference-client", connections_file(OWN_EXPORT, entry("Other")), registry=REGISTRY,
         remove=True, faults=OF_REFERENCE_CLIENT),
]
