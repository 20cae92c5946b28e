"""What a run may come to when one thing fails: the lines of `torture_run.told` that are allowed.

Result 0 stands where the tool takes a failure for none ("Fixed" in SECURITY.md); the rest of the line is
all that the failure may cost. "as before", "whole", "a part": the target of an export. "nothing imported",
"unmerged", "whole": what the client was given to import.
"""

NO_LOG = "says Failed to open corvik logger file."
NO_IDENTITY = "says corvik: Invalid Image ID (neither /etc/systeminfo nor /etc/imageid gives one)"
NO_MARKUP = 'says corvik: the registry export /tmp/TYPE.xml holds no "<"'
NO_MEMORY = "says corvik: out of memory"
UNPARSED = "says Failed to parse the exported registry information."
SESSIONS = "/etc/tavrin/connections/"

WHOLE = "0, whole"

# An export

LEFT = "0, whole, leaves TYPE.xml"
OTHER_NAME = "50, as before, runs export root/ConnectionType/rdesktop /tmp/rdesktop.xml"
# The newer layout's default connection is not known: whether it is of the type is not known either.
UNASKED = {"0, unmarked, does less", "0, empty, does less",
           "50, as before, runs export root/ConnectionType/TYPE /tmp/TYPE.xml"}
UNANSWERED = {"0, unmarked", "0, empty",
              "50, as before, runs export root/ConnectionType/TYPE /tmp/TYPE.xml"}
# Once the names are known, a device whose identity cannot be read counts as one of image type 10.
IDENTITY_LOST = {f"aborted, as before, {NO_IDENTITY}", "0, all", "0, empty, does less",
                 "50, as before, runs export root/ConnectionType/TYPE /tmp/TYPE.xml",
                 "0, whole, says cat: /etc/systeminfo: No such file or directory"}
SESSION_UNPARSED = {f"0, {loss}, says Parse xml failed." for loss in (
    "A without session", "A without window", "B with empty session", "B without window")}
SESSION_UNREAD = {
    f"0, A without session, says read file {SESSIONS}a.kss fail",
    f"0, A without window, says read file {SESSIONS}a.ws fail",
    f"0, B with empty session, says read file {SESSIONS}b.kss fail",
    f"0, B without window, says read file {SESSIONS}b.ws fail"}

GET_CALLS = {
    "FAIL_POPEN": UNASKED,
    "FAIL_PIPE": UNASKED,
    "FAIL_FDOPEN": UNANSWERED,
    "FAIL_SYSTEM": {"0, whole, does less", "50, as before", OTHER_NAME, LEFT},
    "FAIL_SPAWN": {WHOLE},
    "FAIL_SPAWN_SETUP": {"0, whole, does less", "50, as before", OTHER_NAME, LEFT, *UNASKED},
    "FAIL_WAITPID": {WHOLE, "50, as before", OTHER_NAME},
    "FAIL_FOPEN": {WHOLE, f"0, as before, does less, {NO_LOG}",
                   f"0, as before, does less, says less, {NO_LOG}", "11, as before",
                   "12, as before", *IDENTITY_LOST, *SESSION_UNREAD},
    "FAIL_FREAD": {WHOLE, f"aborted, as before, {NO_MARKUP}", *IDENTITY_LOST, *SESSION_UNPARSED},
    "FAIL_FGETS": {WHOLE, f"aborted, as before, {NO_IDENTITY}", "0, unmarked, does less",
                   *UNANSWERED},
    "FAIL_FWRITE": {"12, emptied"},
    "SHORT_FWRITE": {WHOLE},
    "FAIL_SETVBUF": {WHOLE},
    "FAIL_FFLUSH": {WHOLE, "12, whole"},
    "FAIL_FCLOSE": {WHOLE, "12, whole"},
    "FAIL_STAT": {WHOLE},
    "FAIL_NEW": {f"aborted, as before, {NO_MEMORY}", f"52, as before, {UNPARSED}",
                 "52, as before, says Failed to parse the tavrin configure file.", "12, as before",
                 WHOLE,  # room ahead of a file, or memory that could not be given back, does no harm
                 *SESSION_UNPARSED},
}

# An import

NOT_CONTAINED = {"0, nothing imported, does less, says less",
                 "0, nothing imported, sessions as before, does less, says less"}
OTHER_BUILD = "0, whole, does less, does what another build does"
BUILD_LOST = {OTHER_BUILD, "0, all merged, says less", *(
    f"0, {document}, says cat: /etc/systeminfo: No such file or directory"
    for document in ("whole", "with no product"))}
UNLISTED = {"0, whole, does less, says popen() failure."}
ICON = "0, whole, does less, empties an icon"
# Without the registry's state the import is made without it.
MERGE_NOT_ASKED = {"0, unmerged, does less, says less", "0, whole, does less, says less"}
MERGE_LEFT_OUT = {*MERGE_NOT_ASKED, "0, unmerged, says less", "0, whole, says less"}
UNMERGED = {f"{each}, {UNPARSED}" for each in MERGE_LEFT_OUT}
UNMERGED_LATE = {f"0, unmerged, {UNPARSED}", f"0, unmerged, does less, {UNPARSED}"}
COMMANDS = {"0, whole, does less", "0, nothing imported, whole prepared, does less", *NOT_CONTAINED,
            *MERGE_NOT_ASKED, f"{OTHER_BUILD}, says less"}
NOT_WRITTEN = "says Could not write /tmp/import.xml, errno=."
SESSION_NOT_WRITTEN = {"a.kss": f"says Write file {SESSIONS}a.kss fail.",
                       "a.ws": f"says Write file {SESSIONS}a.ws fail."}
SESSION_TOLD = {f"0, whole, {told}" for told in SESSION_NOT_WRITTEN.values()}


def sessions(state):
    return {f"0, whole, {name} {state}, {told}" for name, told in SESSION_NOT_WRITTEN.items()}


def nothing_imported(*words):
    return {f"aborted, nothing imported, {', '.join([*before, *words])}"
            for before in ([], ["sessions as before"])}


SET_CALLS = {
    "FAIL_POPEN": {"0, whole, does less", ICON, *UNLISTED},
    "FAIL_PIPE": {"0, whole, does less", ICON, *UNLISTED},
    "FAIL_FDOPEN": {WHOLE, "0, whole, does less", ICON, *UNLISTED,
                    "0, whole, says popen() failure."},
    "FAIL_SYSTEM": {WHOLE, *COMMANDS},
    "FAIL_SPAWN": {WHOLE},
    "FAIL_SPAWN_SETUP": {WHOLE, ICON, *COMMANDS, *UNLISTED},
    "FAIL_WAITPID": {WHOLE, *NOT_CONTAINED, *MERGE_LEFT_OUT,
                     f"{OTHER_BUILD}, says less"},
    "FAIL_FOPEN": {WHOLE, *(f"{each}, {NO_LOG}" for each in NOT_CONTAINED),
                   f"0, whole, does less, says less, {NO_LOG}",
                   f"23, nothing imported, {NOT_WRITTEN}",
                   *MERGE_LEFT_OUT, *nothing_imported("says corvik: Invalid file name:in.xml"),
                   *nothing_imported(NO_IDENTITY), *BUILD_LOST, *sessions("as before")},
    "FAIL_FREAD": {WHOLE, *nothing_imported("says corvik: Invalid file name:in.xml"),
                   f"aborted, nothing imported, {NO_IDENTITY}",
                   f"aborted, nothing imported, {NO_MARKUP}",
                   *BUILD_LOST},
    "FAIL_FGETS": {WHOLE, "0, whole, does less", ICON, *nothing_imported(NO_IDENTITY)},
    "FAIL_FWRITE": {f"23, nothing imported, a part prepared, {NOT_WRITTEN}", *sessions("in part")},
    "SHORT_FWRITE": {WHOLE},
    "FAIL_SETVBUF": {WHOLE},
    "FAIL_FFLUSH": {WHOLE, f"23, nothing imported, whole prepared, {NOT_WRITTEN}", *SESSION_TOLD},
    "FAIL_FCLOSE": {WHOLE, f"23, nothing imported, whole prepared, {NOT_WRITTEN}", *SESSION_TOLD},
    "FAIL_STAT": {WHOLE},
    "FAIL_NEW": {WHOLE,  # room ahead of a file, or memory that could not be given back, does no harm
                 *nothing_imported(NO_MEMORY), f"aborted, whole, {NO_MEMORY}",
                 f"aborted, nothing imported, whole prepared, {NO_MEMORY}",
                 f"aborted, nothing imported, a.ws as before, {NO_MEMORY}", "52, nothing imported",
                 "52, whole", f"23, nothing imported, {NOT_WRITTEN}", *sessions("as before"),
                 "0, whole, a.kss as before, says Parse xml failed.",
                 "0, whole, a.ws as before, says Parse xml failed.", *UNMERGED, *UNMERGED_LATE,
                 "20, nothing imported, says Failed to parse in.xml",
                 "20, nothing imported, sessions as before, says Failed to parse in.xml"},
}

# The client

NO_DOCUMENT = f"aborted, as before, {NO_MARKUP}"
PARSE_FAILED = f"52, as before, {UNPARSED}"
GET_UNANSWERED = {WHOLE, *UNANSWERED}

GET_FAULTS = {
    "returns-1": {*GET_UNANSWERED, "50, as before", OTHER_NAME},
    "done-returns-1": {WHOLE, "50, as before", OTHER_NAME},
    "nothing": {*GET_UNANSWERED, "11, as before"},
    **dict.fromkeys(("empty", "one-word", "three-words", "long-line", "nuls"),
                    {*GET_UNANSWERED, NO_DOCUMENT}),
    **dict.fromkeys(("a-nul", "half", "all-but-the-end"), {*GET_UNANSWERED, PARSE_FAILED}),
    "crlf": {WHOLE},
}

PATH = "root/ConnectionType/TYPE/connections"
SET_CUT_OFF = {WHOLE, "0, whole, does less", ICON}
SET_UNANSWERED = {*SET_CUT_OFF, "0, whole, does less, says less"}
IMPORT_NO_DOCUMENT = f"aborted, nothing imported, {NO_MARKUP}"


def believed(path):
    """A line of a listing is believed, wherever it was cut off."""
    return {f"0, whole, does less, runs delete {path}",
            f"0, whole, does less, runs delete {path}, says less, the client says why",
            f"{ICON}, runs get {path}/hasDesktopIcon, runs commit {path}"}


CUT_OFF = {*believed("root/ConnectionType/"),
           f"{ICON}, runs get root/ConnectionType//hasDesktopIcon, "
           "runs commit root/ConnectionType/, the client says why"}
STATUS_READ = {*NOT_CONTAINED, *MERGE_LEFT_OUT, f"{OTHER_BUILD}, says less"}

SET_FAULTS = {
    "returns-1": {*SET_UNANSWERED, *STATUS_READ},
    "done-returns-1": {WHOLE, *STATUS_READ},
    "nothing": {*SET_UNANSWERED, *MERGE_LEFT_OUT},
    **dict.fromkeys(("empty", "one-word", "long-line", "nuls"),
                    {*SET_UNANSWERED, IMPORT_NO_DOCUMENT}),
    "three-words": {*SET_UNANSWERED - {ICON}, IMPORT_NO_DOCUMENT, *(
        f"0, whole, does less, runs set {path}" for path in (
            f"{PATH}/ID/hasDesktopIcon rubbish", f"{PATH}/rubbish/autostart 1",
            "root/ConnectionType/rubbish/connections/ID/autostart 1"))},
    **dict.fromkeys(("a-nul", "half"), {*SET_CUT_OFF, *UNMERGED, *CUT_OFF}),
    "all-but-the-end": {*SET_CUT_OFF, *UNMERGED, *believed(f"{PATH}/I"), *(
        f"0, whole, does less, runs set {path}/autostart 1" for path in (
            f"{PATH}/I", "root/ConnectionType/freerd/connections/ID"))},
    "crlf": {WHOLE, f"0, whole, does less, runs delete {PATH}/ID\\r",
             f"0, whole, does less, runs delete {PATH}/ID\\r, says less, the client says why"},
}


def with_signals(faults, word_of_half):
    """A client that a signal ends answers as one that fails, and is told of."""
    told = {"killed": "Killed", "crashes": "Segmentation fault"}
    both = {**faults, "returns-127": faults["returns-1"]}
    for fault, word in told.items():
        both[fault] = {_with_word(each, word) for each in faults["returns-1"]}
    both["half-killed"] = {_with_word(each, "Killed")
                           for each in (*faults["returns-1"], *word_of_half)}
    return both


def _with_word(line, word):
    """The line of a run that also says this word, where such lines stand."""
    head, comma, tail = line.partition(", the client says why")
    return f"{head}, says {word}{comma}{tail}"


ALLOWED_CALLS = {"get": GET_CALLS, "set": SET_CALLS}
ALLOWED_FAULTS = {"get": with_signals(GET_FAULTS, ()), "set": with_signals(SET_FAULTS, CUT_OFF)}
