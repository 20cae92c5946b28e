"""The reference registry client: every verb, its output, status and messages, staging, safety."""

import fcntl
import os
import random
import signal
import sqlite3
import subprocess
import sys
import termios
import time
from pathlib import Path

import pytest

SAMPLES = Path(__file__).resolve().parents[2] / "samples"

VERBS = ("get", "contains", "set", "create", "delete", "import", "commit", "export", "tree", "diff",
         "load")

USAGE = """usage:
  regsh get PATH
  regsh contains PATH
  regsh set PATH [VALUE]
  regsh create PATH
  regsh delete PATH
  regsh import FILE
  regsh commit [PATH]
  regsh export PATH FILE
  regsh tree [PATH]
  regsh diff
  regsh load FILE
  regsh --help
"""


class Client:
    """regsh with a store of its own; words and answers are bytes or text."""

    def __init__(self, store):
        self.program = os.path.join(os.environ["CORVIK_BIN_DIR"], "regsh")
        self.store = store
        self.environment = {**os.environ, "REGSH_DB": str(store)}

    def start(self, *words, **options):
        return subprocess.Popen([self.program, *words], env=self.environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)

    def __call__(self, *words):
        """Status, standard output and standard error."""
        process = self.start(*words)
        output, errors = process.communicate(timeout=60)
        return process.returncode, os.fsdecode(output), os.fsdecode(errors)

    def do(self, *words):
        """Runs what has to succeed without a message; gives its output."""
        status, output, errors = self(*words)
        assert (status, errors) == (0, ""), (words, output)
        return output

    def publish(self, *words):
        self.do(*words)
        self.do("commit")


@pytest.fixture
def regsh(tmp_path):
    return Client(tmp_path / "registry.db")


def document(entries, path="root/a"):
    name = path.rsplit("/", 1)[-1]
    return (f'<Profile><ProfileRegistry><NodeDir name="{name}" path="{path}">{entries}'
            '</NodeDir></ProfileRegistry></Profile>')


def key(name, value):
    return f'<NodeKey name="{name}"><NodeParam>{value}</NodeParam></NodeKey>'


def directory(name, entries=""):
    return f'<NodeDir name="{name}">{entries}</NodeDir>'


def written(path, text):
    path.write_text(text, encoding="utf-8", newline="")
    return str(path)


def many_connections(count, keys, value):
    return document(
        "".join(directory(f"c{i}", "".join(key(f"k{j}", f"{value} {i} {j}") for j in range(keys)))
                for i in range(count)), "root/ConnectionType/rdesktop")


# get, contains, set


def test_a_key_is_printed_as_path_blank_value(regsh):
    regsh.publish("set", "root/a/label", "Office  & <more> ")
    assert regsh("get", "root/a/label") == (0, "root/a/label Office  & <more> \n", "")


def test_an_empty_value_is_printed_as_path_and_blank(regsh):
    regsh.publish("set", "root/a/label", "")
    assert regsh("get", "root/a/label") == (0, "root/a/label \n", "")


def test_a_directory_is_printed_as_kind_and_full_path_of_each_child_in_order(regsh):
    regsh.do("set", "root/a/z", "1")
    regsh.do("create", "root/a/m")
    regsh.do("set", "root/a/b/c", "2")
    regsh.publish("set", "root/a/y", "3")
    assert regsh("get", "root/a") == (
        0, "key root/a/z\ndir root/a/m\ndir root/a/b\nkey root/a/y\n", "")


def test_an_empty_directory_is_printed_as_nothing(regsh):
    regsh.publish("create", "root/a/connections")
    assert regsh("get", "root/a/connections") == (0, "", "")


def test_the_root_is_listed(regsh):
    regsh.publish("create", "root/a")
    assert regsh("get", "root") == (0, "dir root/a\n", "")


@pytest.mark.parametrize("path", ["root/b", "root/a/b", "root/a/key/under", "root/A"])
def test_a_missing_entry_gives_status_1_and_no_output(regsh, path):
    regsh.publish("set", "root/a/key", "1")
    assert regsh("get", path) == (1, "", "")
    assert regsh("contains", path) == (1, "", "")


@pytest.mark.parametrize("path", ["root", "root/", "root/a", "root/a/", "root/a//", "root/a/key"])
def test_contains_finds_keys_and_directories_and_prints_nothing(regsh, path):
    regsh.publish("set", "root/a/key", "1")
    assert regsh("contains", path) == (0, "", "")


def test_set_without_a_value_word_sets_the_empty_value(regsh):
    regsh.publish("set", "root/a/key", "1")
    regsh.publish("set", "root/a/key")
    assert regsh.do("get", "root/a/key") == "root/a/key \n"


@pytest.mark.parametrize("line, value", [
    ('regsh set root/a/key ""', ""),
    ("regsh set root/a/key ", ""),
    ("regsh set root/a/key  one", "one"),
    ("regsh set root/a/key\tone", "one"),
    ("regsh set root/a/key 'one  two'", "one  two"),
    ("regsh set root/a/key -1", "-1"),
    ("regsh set root/a/key --help", "--help"),
    ("regsh set root/a/key/ one", "one"),
])
def test_set_as_a_shell_line(regsh, line, value):
    regsh.publish("set", "root/a/key", "before")
    folder = os.path.dirname(regsh.program)
    environment = {**regsh.environment, "PATH": folder + ":" + os.environ["PATH"]}
    assert subprocess.run(["sh", "-c", line], env=environment).returncode == 0
    regsh.do("commit")
    assert regsh.do("get", "root/a/key") == f"root/a/key {value}\n"


def test_a_key_that_is_set_again_keeps_its_place(regsh):
    for name in "cab":
        regsh.do("set", f"root/a/{name}", "1")
    regsh.do("commit")
    regsh.publish("set", "root/a/c", "2")
    assert regsh.do("get", "root/a") == "key root/a/c\nkey root/a/a\nkey root/a/b\n"


def test_a_key_that_was_deleted_comes_back_at_the_end(regsh):
    for name in "cab":
        regsh.do("set", f"root/a/{name}", "1")
    regsh.do("commit")
    regsh.do("delete", "root/a/c")
    regsh.publish("set", "root/a/c", "1")
    assert regsh.do("get", "root/a") == "key root/a/a\nkey root/a/b\nkey root/a/c\n"


@pytest.mark.parametrize("value", [
    " leading and trailing ", "\t", "two\nlines", "carriage\rreturn", "\r\n", "'\"\\`$(x);&|<>",
    "&amp; &#65; &lt;", "]]>", "<!-- -->", "Größe 字 \U0001f600", "\x7f", "x" * 100000])
def test_a_value_keeps_its_bytes_through_set_export_and_import(regsh, tmp_path, value):
    regsh.publish("set", "root/a/key", value)
    assert regsh.do("get", "root/a/key") == f"root/a/key {value}\n"
    file = str(tmp_path / "a.xml")
    regsh.do("export", "root/a", file)
    regsh.publish("delete", "root/a")
    regsh.publish("import", file)
    assert regsh.do("get", "root/a/key") == f"root/a/key {value}\n"


def test_bytes_that_are_no_text_are_kept(regsh, tmp_path):
    file = str(tmp_path / "a.xml")
    value = bytes(range(0x80, 0x100))
    regsh.publish("set", "root/a/key", value)
    regsh.do("export", "root/a", file)
    regsh.publish("delete", "root/a")
    regsh.publish("import", file)
    assert os.fsencode(regsh.do("get", "root/a/key")) == b"root/a/key " + value + b"\n"


@pytest.mark.parametrize("character", ["\x01", "\x08", "\x0b", "\x0c", "\x1b", "\x1f"])
def test_a_value_that_no_document_can_carry_is_refused(regsh, character):
    assert regsh("set", "root/a/key", f"x{character}y") == (
        1, "", "regsh: the value for root/a/key holds a control character"
        " that an export cannot carry\n")
    assert regsh.do("diff") == ""


def test_a_name_with_odd_characters(regsh):
    path = "root/a/b c;$(d)&<e>\"'ü"
    regsh.publish("set", path, "1")
    assert regsh.do("get", path) == f"{path} 1\n"
    assert regsh.do("get", "root/a") == f"key {path}\n"


@pytest.mark.parametrize("words, message", [
    (("set", "root/a", "1"), "root/a is a directory"),
    (("set", "root", "1"), "root is a directory"),
    (("set", "root/a/key/x/y", "1"), "root/a/key is a key"),
    (("create", "root/a/key"), "root/a/key is a key"),
    (("create", "root/a/key/x"), "root/a/key is a key"),
    (("delete", "root"), "the root cannot be deleted"),
    (("delete", "root/b"), "root/b is not in the registry"),
    (("commit", "root/b"), "root/b is not in the registry"),
    (("tree", "root/b"), "root/b is not in the registry"),
])
def test_what_cannot_be_done_is_refused_and_changes_nothing(regsh, words, message):
    regsh.publish("set", "root/a/key", "1")
    assert regsh(*words) == (1, "", f"regsh: {message}\n")
    assert regsh.do("diff") == ""


# Command line


def test_no_verb_gives_usage(regsh):
    assert regsh() == (2, "", USAGE)


def test_an_unknown_verb_gives_usage(regsh):
    assert regsh("fetch", "root") == (2, "", 'regsh: unknown verb "fetch"\n' + USAGE)


@pytest.mark.parametrize("words, synopsis", [
    (("get",), "get PATH"), (("get", "root", "root"), "get PATH"),
    (("contains",), "contains PATH"), (("contains", "root", "root"), "contains PATH"),
    (("set",), "set PATH [VALUE]"), (("set", "root/a", "1", "2"), "set PATH [VALUE]"),
    (("create",), "create PATH"), (("create", "root/a", "root/b"), "create PATH"),
    (("delete",), "delete PATH"), (("delete", "root/a", "root/b"), "delete PATH"),
    (("import",), "import FILE"), (("import", "a", "b"), "import FILE"),
    (("commit", "root", "root"), "commit [PATH]"),
    (("export", "root"), "export PATH FILE"), (("export", "root", "a", "b"), "export PATH FILE"),
    (("tree", "root", "root"), "tree [PATH]"), (("diff", "root"), "diff"),
    (("load",), "load FILE"), (("load", "a", "b"), "load FILE"),
])
def test_a_wrong_number_of_words_gives_the_usage_of_the_verb(regsh, words, synopsis):
    assert regsh(*words) == (2, "", f"regsh: wrong number of words\nusage: regsh {synopsis}\n")
    assert not regsh.store.exists()


@pytest.mark.parametrize("path, why", [
    ("", 'it does not begin with "root"'), ("/", 'it does not begin with "root"'),
    ("/root/a", 'it does not begin with "root"'), ("rooted/a", 'it does not begin with "root"'),
    ("Root", 'it does not begin with "root"'), ("root//a", "a name in it is empty"),
    ("root/a\n", "a name in it holds a control character"),
    ("root" + "/x" * 65, "it is deeper than 64 levels"),
])
@pytest.mark.parametrize("verb", ["get", "contains", "set", "create", "delete", "commit", "tree"])
def test_a_word_that_is_no_path_gives_status_2(regsh, verb, path, why):
    assert regsh(verb, path) == (2, "", f'regsh: "{path}" is not a registry path: {why}\n')


def test_the_deepest_path_works(regsh, tmp_path):
    path = "root" + "/x" * 64
    regsh.publish("set", path, "1")
    regsh.do("export", "root/x", str(tmp_path / "x.xml"))
    regsh.publish("delete", "root/x")
    regsh.publish("import", str(tmp_path / "x.xml"))
    assert regsh.do("get", path) == f"{path} 1\n"


@pytest.mark.parametrize("word", ["--help", "-h"])
def test_help_tells_every_verb_and_the_store(regsh, word):
    text = regsh.do(word)
    for verb in VERBS:
        assert f"\n  regsh {verb}" in text
    assert "$REGSH_DB, or /etc/regsh/registry.db" in text


# The store


@pytest.mark.parametrize("verb", ["get", "contains", "export", "tree"])
def test_reading_without_a_store_finds_nothing_and_creates_nothing(tmp_path, verb):
    regsh = Client(tmp_path / "folder" / "registry.db")
    words = [str(tmp_path / "out.xml")] if verb == "export" else []
    assert regsh(verb, "root/a", *words)[:2] == (1, "")
    assert os.listdir(tmp_path) == []


def test_the_first_write_creates_the_store_and_its_folders(tmp_path):
    regsh = Client(tmp_path / "one" / "two" / "registry.db")
    regsh.publish("set", "root/a", "1")
    assert regsh.do("get", "root/a") == "root/a 1\n"
    assert os.listdir(regsh.store.parent) == ["registry.db"]


def test_an_empty_file_is_an_empty_registry(regsh):
    regsh.store.touch()
    assert regsh("get", "root/a") == (1, "", "")
    regsh.publish("set", "root/a", "1")
    assert regsh.do("get", "root/a") == "root/a 1\n"


@pytest.mark.parametrize("words", [("get", "root"), ("create", "root/a")])
def test_a_file_that_is_no_store_is_refused(regsh, words):
    regsh.store.write_text("no store " * 1000)
    assert regsh(*words) == (1, "", "regsh: the registry store failed: file is not a database\n")


@pytest.mark.parametrize("words", [("get", "root"), ("create", "root/a")])
def test_a_store_of_another_layout_is_refused(regsh, words):
    regsh.publish("create", "root/a")
    with sqlite3.connect(regsh.store) as database:
        database.execute("PRAGMA user_version = 7")
    database.close()
    assert regsh(*words) == (
        1, "", f"regsh: cannot open the registry store {regsh.store}: its layout 7 is unknown\n")


def test_a_folder_that_cannot_be_made_is_told(tmp_path):
    (tmp_path / "file").touch()
    regsh = Client(tmp_path / "file" / "registry.db")
    assert regsh("create", "root/a") == (
        1, "", f"regsh: cannot open the registry store {regsh.store}: cannot create its folder:"
        " Not a directory\n")


def test_an_answer_that_cannot_be_printed_gives_status_1(regsh):
    with open("/dev/full", "wb") as full:
        process = subprocess.run([regsh.program, "tree"], env=regsh.environment, stdout=full,
                                 stderr=subprocess.PIPE)
    assert (process.returncode, process.stderr) == (
        1, b"regsh: cannot write to standard output\n")


# Staging


@pytest.mark.parametrize("words", [("set", "root/a/key", "2"), ("set", "root/a/new", "2"),
                                   ("create", "root/a/new"), ("delete", "root/a/key"),
                                   ("delete", "root/a")])
def test_a_staged_change_is_seen_by_no_reader_until_it_is_committed(regsh, tmp_path, words):
    regsh.publish("set", "root/a/key", "1")
    regsh.do("export", "root/a", str(tmp_path / "before.xml"))
    before = regsh.do("tree")
    regsh.do(*words)
    assert regsh.do("tree") == before
    assert regsh.do("get", "root/a") == "key root/a/key\n"
    assert regsh.do("get", "root/a/key") == "root/a/key 1\n"
    assert regsh("contains", "root/a/new")[0] == 1
    regsh.do("export", "root/a", str(tmp_path / "staged.xml"))
    assert (tmp_path / "staged.xml").read_bytes() == (tmp_path / "before.xml").read_bytes()
    regsh.do("commit")
    assert regsh.do("tree") != before


def test_an_import_is_staged(regsh, tmp_path):
    regsh.do("import", written(tmp_path / "a.xml", document(key("k", "1"))))
    assert regsh("contains", "root/a")[0] == 1
    regsh.do("commit")
    assert regsh.do("get", "root/a/k") == "root/a/k 1\n"


def test_a_commit_publishes_only_the_subtree(regsh):
    regsh.do("set", "root/a/in/k", "1")
    regsh.do("set", "root/a/out/k", "1")
    regsh.do("set", "root/a/inside", "1")
    regsh.do("commit", "root/a/in")
    assert regsh.do("tree") == 'root/\n  a/\n    in/\n      k = "1"\n'
    assert regsh.do("diff") == '+ root/a/inside = "1"\n+ root/a/out/\n+ root/a/out/k = "1"\n'


def test_a_commit_of_one_key_leaves_its_siblings_staged(regsh):
    regsh.do("set", "root/a/one", "1")
    regsh.do("set", "root/a/two", "2")
    regsh.do("commit", "root/a/two")
    assert regsh.do("get", "root/a") == "key root/a/two\n"
    regsh.do("commit", "root/a/")
    assert regsh.do("get", "root/a") == "key root/a/one\nkey root/a/two\n"


def test_a_commit_publishes_a_removal_inside_the_subtree_only(regsh):
    for path in ("root/a/x", "root/a/y"):
        regsh.do("set", path + "/k", "1")
    regsh.do("commit")
    regsh.do("delete", "root/a")
    regsh.do("commit", "root/a/x")
    assert regsh.do("tree") == 'root/\n  a/\n    y/\n      k = "1"\n'
    regsh.do("commit", "root/a")
    assert regsh.do("tree") == "root/\n"


def test_a_commit_without_changes_changes_nothing(regsh):
    regsh.publish("set", "root/a/k", "1")
    before = regsh.do("tree")
    regsh.do("commit")
    regsh.do("commit", "root/a")
    assert regsh.do("tree") == before


def test_a_staged_deletion_followed_by_an_import_leaves_what_the_import_brings(regsh, tmp_path):
    base = "root/ConnectionType/rdesktop/connections"
    for name in ("one", "two", "three"):
        regsh.do("set", f"{base}/{name}/label", name)
        regsh.do("set", f"{base}/{name}/old", "1")
    regsh.publish("set", "root/ConnectionType/rdesktop/setting", "1")
    for name in ("one", "two", "three"):
        regsh.do("delete", f"{base}/{name}")
    regsh.do("import", written(tmp_path / "a.xml", document(
        directory("connections", directory("three", key("label", "3"))
                  + directory("one", key("label", "1"))),
        "root/ConnectionType/rdesktop")))
    regsh.do("commit", base)
    assert regsh.do("tree", base) == (f'{base}/\n  three/\n    label = "3"\n'
                                      '  one/\n    label = "1"\n')
    assert regsh.do("diff") == ""


def test_staged_changes_are_seen_by_later_staged_ones(regsh):
    assert regsh("delete", "root/a")[0] == 1
    regsh.do("create", "root/a")
    regsh.do("create", "root/a")
    regsh.do("delete", "root/a")
    assert regsh("delete", "root/a")[0] == 1
    assert regsh.do("diff") == ""


def test_the_change_signal_of_a_directory_leaves_no_trace(regsh):
    regsh.publish("create", "root/ConnectionType/view")
    before = regsh.do("tree")
    regsh.do("create", "root/ConnectionType/.toBeRefreshed")
    regsh.do("delete", "root/ConnectionType/.toBeRefreshed")
    regsh.do("commit", "root/ConnectionType")
    assert (regsh.do("tree"), regsh.do("diff")) == (before, "")


def test_a_key_may_become_a_directory_and_back(regsh):
    regsh.publish("set", "root/a/x", "1")
    regsh.do("delete", "root/a/x")
    regsh.do("set", "root/a/x/y", "2")
    regsh.do("set", "root/a/z", "3")
    regsh.do("commit", "root/a/x/y")
    assert regsh.do("tree") == 'root/\n  a/\n    x/\n      y = "2"\n'
    regsh.do("delete", "root/a/x")
    regsh.do("set", "root/a/x", "4")
    regsh.do("commit", "root/a/x/y")
    assert regsh.do("tree") == "root/\n  a/\n    x/\n"
    regsh.do("commit")
    assert regsh.do("tree") == 'root/\n  a/\n    z = "3"\n    x = "4"\n'


def test_diff_shows_one_line_for_each_change(regsh):
    for name, value in (("gone", "1"), ("changed", "old"), ("same", "1"), ("moved", "1")):
        regsh.do("set", f"root/a/{name}", value)
    regsh.publish("create", "root/a/turned")
    regsh.do("delete", "root/a/gone")
    regsh.do("set", "root/a/changed", 'a "new"\n\t\\one')
    regsh.do("set", "root/a/same", "1")
    regsh.do("delete", "root/a/moved")
    regsh.do("set", "root/a/moved", "1")
    regsh.do("delete", "root/a/turned")
    regsh.do("set", "root/a/turned", "key")
    regsh.do("set", "root/a/new/key", "")
    assert regsh("diff") == (0, '~ root/a/changed = "old" -> "a \\"new\\"\\n\\t\\\\one"\n'
                             '- root/a/gone = "1"\n'
                             '~ root/a/moved = "1" (new place)\n'
                             '+ root/a/new/\n'
                             '+ root/a/new/key = ""\n'
                             '~ root/a/turned/ -> "key"\n', "")
    regsh.do("commit")
    assert regsh("diff") == (0, "", "")


class Model:
    """What the registry ought to hold: nested dictionaries, a text being a key."""

    def __init__(self):
        self.committed, self.staged = {}, {}

    @staticmethod
    def put(tree, names, value):
        for name in names[:-1]:
            tree = tree.setdefault(name, {})
            if not isinstance(tree, dict):
                return False
        kept = tree.setdefault(names[-1], value)
        if isinstance(kept, dict) or isinstance(value, dict):
            return isinstance(kept, dict) and isinstance(value, dict)
        tree[names[-1]] = value
        return True

    @staticmethod
    def find(tree, names):
        for name in names:
            if not isinstance(tree, dict) or name not in tree:
                return None
            tree = tree[name]
        return tree

    def write(self, names, value):
        copy = clone(self.staged)
        done = self.put(copy, names, value)
        if done:
            self.staged = copy
        return done

    def delete(self, names):
        if self.find(self.staged, names) is None:
            return False
        del self.find(self.staged, names[:-1])[names[-1]]
        return True

    def commit(self, names):
        new, old = self.find(self.staged, names), self.find(self.committed, names)
        if new is None and old is None:
            return False
        if not names:
            self.committed = clone(self.staged)
        elif new is None:
            del self.find(self.committed, names[:-1])[names[-1]]
        else:
            parent = self.committed
            for name in names[:-1]:
                if not isinstance(parent.get(name), dict):
                    parent[name] = {}
                parent = parent[name]
            parent[names[-1]] = clone(new)
        return True


def clone(tree):
    return {name: clone(child) for name, child in tree.items()} if isinstance(tree, dict) else tree


def content(regsh, path="root"):
    """The committed tree, read by get alone; the order of entries is not looked at."""
    tree = {}
    for line in regsh.do("get", path).splitlines():
        kind, child = line.split(" ")
        tree[child.rsplit("/", 1)[1]] = (content(regsh, child) if kind == "dir" else
                                         regsh.do("get", child)[len(child) + 1:-1])
    return tree


@pytest.mark.parametrize("seed", range(6))
def test_random_writes_and_commits_follow_the_model(regsh, seed):
    chance, model = random.Random(seed), Model()
    for step in range(60):
        names = [chance.choice("xy") for _ in range(chance.randint(1, 4))]
        path = "/".join(["root", *names])
        verb = chance.choice(["set", "create", "delete", "commit", "commit", "commit all"])
        if verb == "set":
            done = model.write(names, str(step))
            words = ("set", path, str(step))
        elif verb == "create":
            done = model.write(names, {})
            words = ("create", path)
        elif verb == "delete":
            done, words = model.delete(names), ("delete", path)
        elif verb == "commit":
            done, words = model.commit(names), ("commit", path)
        else:
            done, words = model.commit([]), ("commit",)
        assert regsh(*words)[0] == (0 if done else 1), (step, words)
        assert content(regsh) == model.committed, (step, words)


# Export


def test_an_export_document(regsh, tmp_path):
    base = "root/ConnectionType/rdesktop"
    regsh.do("set", f"{base}/setting", "")
    regsh.do("create", f"{base}/empty")
    regsh.do("set", f"{base}/connections/one/label", " A & B <c> \"d\" 'e'\t>\n")
    regsh.publish("set", f"{base}/connections/o\"'<>&/label", "Büro")
    assert regsh("export", base, str(tmp_path / "out.xml")) == (0, "", "")
    assert (tmp_path / "out.xml").read_text(encoding="utf-8") == """\
<?xml version="1.0" encoding="UTF-8"?>
<Profile>
  <ProfileRegistry>
    <NodeDir name="rdesktop" path="root/ConnectionType/rdesktop">
      <NodeKey name="setting">
        <NodeParam type="string" />
      </NodeKey>
      <NodeDir name="empty" />
      <NodeDir name="connections">
        <NodeDir name="one">
          <NodeKey name="label">
            <NodeParam type="string"> A &amp; B &lt;c&gt; &quot;d&quot; &apos;e&apos;\t&gt;
</NodeParam>
          </NodeKey>
        </NodeDir>
        <NodeDir name="o&quot;&apos;&lt;&gt;&amp;">
          <NodeKey name="label">
            <NodeParam type="string">Büro</NodeParam>
          </NodeKey>
        </NodeDir>
      </NodeDir>
    </NodeDir>
  </ProfileRegistry>
  <ProfileSettings>
    <Target>
      <Config>standard</Config>
    </Target>
  </ProfileSettings>
</Profile>
"""


def test_the_product_configuration_comes_from_its_key(regsh, tmp_path):
    regsh.publish("set", "root/system/productConfig", "zero")
    regsh.do("export", "root/system", str(tmp_path / "out.xml"))
    assert "<Config>zero</Config>" in (tmp_path / "out.xml").read_text()


def test_an_export_of_a_missing_path_writes_no_file(regsh, tmp_path):
    assert regsh("export", "root/a", str(tmp_path / "out.xml")) == (
        1, "", "regsh: root/a is not in the registry\n")
    assert not (tmp_path / "out.xml").exists()


def test_an_export_of_a_key_is_refused(regsh, tmp_path):
    regsh.publish("set", "root/a", "1")
    assert regsh("export", "root/a", str(tmp_path / "out.xml")) == (
        1, "", "regsh: root/a is a key: only a directory is exported\n")
    assert not (tmp_path / "out.xml").exists()


@pytest.mark.parametrize("target, why", [("missing/out.xml", "No such file or directory"),
                                         (".", "Is a directory"),
                                         ("/dev/full", "No space left on device")])
def test_an_export_that_cannot_be_written_gives_status_1(regsh, tmp_path, target, why):
    regsh.publish("create", "root/a")
    target = str(tmp_path / target)
    assert regsh("export", "root/a", target) == (1, "", f"regsh: cannot write {target}: {why}\n")


def test_an_export_that_stops_half_way_leaves_no_file(regsh, tmp_path):
    regsh.publish("set", "root/a/k", "x" * 50000)
    target = tmp_path / "out.xml"
    limited = f'ulimit -f 8; trap "" XFSZ; exec "{regsh.program}" export root/a "{target}"'
    process = subprocess.run(["bash", "-c", limited], env=regsh.environment,
                             stderr=subprocess.PIPE, text=True)
    assert (process.returncode, process.stderr) == (
        1, f"regsh: cannot write {target}: File too large\n")
    assert not target.exists()


@pytest.mark.parametrize("sample", ["standard", "zero"])
def test_export_wipe_import_export_gives_the_same_document(regsh, tmp_path, sample):
    regsh.do("load", str(SAMPLES / f"{sample}.xml"))
    before, listing = regsh.do("tree"), regsh.do("get", "root/ConnectionType")
    for line in listing.splitlines():
        path = line.split()[1]
        first, second = str(tmp_path / "first.xml"), str(tmp_path / "second.xml")
        regsh.do("export", path, first)
        regsh.publish("delete", path)
        assert regsh("contains", path)[0] == 1
        regsh.publish("import", first)
        regsh.do("export", path, second)
        assert Path(second).read_bytes() == Path(first).read_bytes()
    assert regsh.do("get", "root/ConnectionType") == listing
    assert regsh.do("tree") == before


# Import


def test_an_import_sets_and_creates_and_deletes_nothing(regsh, tmp_path):
    regsh.do("set", "root/a/kept", "1")
    regsh.do("set", "root/a/changed", "1")
    regsh.publish("set", "root/a/d/kept", "1")
    regsh.publish("import", written(tmp_path / "a.xml", document(
        key("new", "2") + directory("d", key("new", "2")) + directory("e") + key("changed", "2"))))
    assert regsh.do("tree", "root/a") == (
        'root/a/\n  kept = "1"\n  changed = "2"\n  d/\n    kept = "1"\n    new = "2"\n'
        '  new = "2"\n  e/\n')


def test_an_import_goes_where_its_path_says(regsh, tmp_path):
    regsh.publish("import", written(tmp_path / "a.xml", document(key("k", "1"), "root/x/y/z/")))
    assert regsh.do("get", "root/x/y/z/k") == "root/x/y/z/k 1\n"


def test_an_import_of_the_whole_registry(regsh, tmp_path):
    regsh.publish("set", "root/a/k", "1")
    regsh.do("export", "root", str(tmp_path / "root.xml"))
    other = Client(tmp_path / "other.db")
    other.publish("import", str(tmp_path / "root.xml"))
    assert other.do("tree") == regsh.do("tree")


def test_what_the_format_does_not_know_is_passed_over(regsh, tmp_path):
    text = ('\n <?xml version="1.0"?>\n<!DOCTYPE r>\n<!-- c --><Other x="1"><Before/>'
            '<ProfileRegistry><Extra/><NodeDir path="root/a"><!-- c --><NodeKey name="k" x="1">'
            '<Note>n</Note><NodeParam type="number">1</NodeParam><NodeParam>2</NodeParam></NodeKey>'
            '<NodeKey name="none"/><NodeKey name="empty"><NodeParam/></NodeKey>'
            '<NodeKey name="data"><NodeParam><![CDATA[<x>]]></NodeParam></NodeKey>'
            '<Extra><NodeKey name="not me"/></Extra></NodeDir></ProfileRegistry></Other>')
    regsh.publish("import", written(tmp_path / "a.xml", text))
    assert regsh.do("tree", "root/a") == (
        'root/a/\n  k = "1"\n  none = ""\n  empty = ""\n  data = "<x>"\n')


def test_white_space_in_a_value_is_kept_and_around_elements_is_not(regsh, tmp_path):
    regsh.publish("import", written(tmp_path / "a.xml", document(
        "\n  " + key("blanks", "   ") + "\n" + key("around", " \t a  b\r\n ") + " ")))
    assert regsh.do("tree", "root/a") == (
        'root/a/\n  blanks = "   "\n  around = " \\t a  b\\r\\n "\n')


@pytest.mark.parametrize("text, line, column, why", [
    ("", 1, 1, "No document element found"),
    ("no markup", 1, 10, "No document element found"),
    ("<a>\n  <b>\n</a>\n", 3, 3, "Start-end tags mismatch"),
    ("<a>\n  <b", 2, 4, "Error parsing start element tag"),
    ("<a>\n  <b x='1/>", 2, 9, "Error parsing element attribute"),
    ("<Profile>\n <Registry/></Profile>", 1, 2, "no ProfileRegistry in the root element"),
    ("<Profile>\n <ProfileRegistry/></Profile>", 2, 3, "no NodeDir in ProfileRegistry"),
    ("<Profile><ProfileRegistry>\n<NodeDir name='a'/></ProfileRegistry></Profile>", 2, 2,
     "NodeDir without a path: its place in the registry is not known"),
    ("<Profile><ProfileRegistry>\n<NodeDir path='a'/></ProfileRegistry></Profile>", 2, 2,
     '"a" is not a registry path: it does not begin with "root"'),
    (document("\n\n  <NodeKey/>"), 3, 4, "NodeKey without a name"),
    (document("\n<NodeDir/>"), 2, 2, "NodeDir without a name"),
    (document('\n<NodeDir name=""/>'), 2, 2, "NodeDir with a bad name: a name in it is empty"),
    (document('\n<NodeKey name="a/b"/>'), 2, 2,
     "NodeKey with a bad name: a name in it holds a slash"),
    (document('\n<NodeKey name="a&#10;b"/>'), 2, 2,
     "NodeKey with a bad name: a name in it holds a control character"),
    (document("\n" + key("k", "&#1;")), 2, 2,
     "the value of k holds a control character that an export cannot carry"),
    (document("\n" + "<NodeDir name='x'>" * 64 + "</NodeDir>" * 64), 2, 63 * 18 + 2,
     "more than 64 levels"),
])
def test_a_document_that_is_damaged_or_lacks_a_level_is_refused(
        regsh, tmp_path, text, line, column, why):
    regsh.publish("set", "root/a/k", "1")
    file = written(tmp_path / "a.xml", text)
    assert regsh("import", file) == (1, "", f"regsh: {file}:{line}:{column}: {why}\n")
    assert regsh.do("diff") == ""


def test_a_document_nested_a_million_deep_is_refused(regsh, tmp_path):
    depth = 1000000
    file = written(tmp_path / "a.xml", document('<NodeDir name="x">' * depth + "</NodeDir>" * depth))
    status, output, errors = regsh("import", file)
    assert (status, output) == (1, "")
    assert errors.startswith(f"regsh: {file}:1:") and errors.endswith(": more than 64 levels\n")


def test_an_export_cut_anywhere_is_refused_and_stages_nothing(regsh, tmp_path):
    regsh.publish("set", "root/a/k", "a & b")
    file = tmp_path / "a.xml"
    regsh.do("export", "root/a", str(file))
    whole = file.read_bytes().rstrip()
    regsh.publish("delete", "root/a")
    for length in range(0, len(whole), 3):
        file.write_bytes(whole[:length])
        status, output, errors = regsh("import", str(file))
        assert (status, output) == (1, ""), length
        assert errors.startswith(f"regsh: {file}:"), length
    assert regsh.do("diff") == ""


@pytest.mark.parametrize("entries, message", [
    (key("new", "1") + directory("k"), "root/a/k is a key"),
    (key("new", "1") + key("d", "1"), "root/a/d is a directory"),
    (key("new", "1") + directory("d", key("x", "1") + directory("x")), "root/a/d/x is a key"),
])
def test_an_import_that_meets_another_kind_stages_nothing(regsh, tmp_path, entries, message):
    regsh.do("set", "root/a/k", "1")
    regsh.publish("create", "root/a/d")
    file = written(tmp_path / "a.xml", document(entries))
    assert regsh("import", file) == (1, "", f"regsh: {message}\n")
    assert regsh.do("diff") == ""


@pytest.mark.parametrize("verb", ["import", "load"])
@pytest.mark.parametrize("name, why", [("missing.xml", "No such file or directory"),
                                       (".", "Is a directory")])
def test_a_file_that_cannot_be_read_is_told(regsh, tmp_path, verb, name, why):
    file = str(tmp_path / name)
    assert regsh(verb, file) == (1, "", f"regsh: cannot read {file}: {why}\n")


# tree and load


def test_tree_shows_values_and_order(regsh):
    regsh.do("set", "root/b/z", 'say "hi"\n')
    regsh.do("create", "root/b/empty")
    regsh.publish("set", "root/b/a/k", "")
    assert regsh.do("tree") == 'root/\n  b/\n    z = "say \\"hi\\"\\n"\n    empty/\n    a/\n' \
                               '      k = ""\n'
    assert regsh.do("tree", "root/b/a/") == 'root/b/a/\n  k = ""\n'
    assert regsh.do("tree", "root/b/a/k") == 'root/b/a/k = ""\n'


def test_load_publishes_at_once(regsh, tmp_path):
    file = written(tmp_path / "r.xml", directory("root", directory("a", key("k", "1"))))
    regsh.do("load", file)
    assert (regsh.do("get", "root/a/k"), regsh.do("diff")) == ("root/a/k 1\n", "")


@pytest.mark.parametrize("text", ["<Profile/>", "<NodeDir/>", '<NodeDir name="a"/>',
                                  '<NodeKey name="root"/>'])
def test_load_wants_the_whole_registry(regsh, tmp_path, text):
    file = written(tmp_path / "r.xml", text)
    assert regsh("load", file) == (
        1, "", f'regsh: {file}:1:2: the root element is not the NodeDir "root"\n')


@pytest.mark.parametrize("sample", ["standard", "zero"])
def test_the_samples_hold_what_the_device_needs(regsh, sample):
    regsh.do("load", str(SAMPLES / f"{sample}.xml"))
    assert regsh.do("get", "root/system/productConfig").split()[1] == sample
    default = regsh.do("get", "root/ConnectionManager/defaultConnection").split()[1]
    theme = regsh.do("get", "root/background/desktop/theme").split()[1]
    assert theme == {"standard": "default", "zero": "freerdp"}[sample]
    default_type = {"standard": "rdesktop", "zero": "freerdp"}[sample]
    regsh.do("contains", f"root/ConnectionType/{default_type}/connections/{default}/label")
    for line in regsh.do("get", "root/ConnectionType").splitlines():
        base = line.split()[1]
        directories = [child.split()[1].rsplit("/", 1)[1]
                       for child in regsh.do("get", base).splitlines() if child.startswith("dir ")]
        assert "connections" in directories and len(directories) > 1
        assert (directories[0] == "connections") == base.endswith("/tavrin")
        connections = regsh.do("get", f"{base}/connections").splitlines()
        assert len(connections) >= 2
        for connection in connections:
            kind, path = connection.split(" ")
            assert kind == "dir"
            for name in ("autostart", "hasDesktopIcon"):
                regsh.do("contains", f"{path}/{name}")


@pytest.mark.parametrize("sample", ["standard", "zero"])
def test_the_samples_name_session_files_that_are_there(regsh, sample):
    regsh.do("load", str(SAMPLES / f"{sample}.xml"))
    missing = []
    for line in regsh.do("get", "root/ConnectionType/tavrin/connections").splitlines():
        name = regsh.do("get", line.split()[1] + "/kssName").split()[1]
        assert (SAMPLES / "tavrin" / name).is_file()
        window = SAMPLES / "tavrin" / (name.split(".")[0] + ".ws")
        missing += [] if window.is_file() else [window.name]
    assert missing == ["accounting.ws"]


# Several clients


def test_a_writer_waits_for_another_one(regsh):
    regsh.publish("set", "root/a", "1")
    database = sqlite3.connect(regsh.store, isolation_level=None)
    database.execute("BEGIN IMMEDIATE")
    process = regsh.start("set", "root/a", "2")
    with pytest.raises(subprocess.TimeoutExpired):
        process.wait(timeout=0.5)
    assert regsh.do("get", "root/a") == "root/a 1\n"
    database.execute("ROLLBACK")
    database.close()
    assert process.communicate(timeout=60) == (b"", b"")
    assert process.returncode == 0
    regsh.do("commit")
    assert regsh.do("get", "root/a") == "root/a 2\n"


def test_no_write_of_several_clients_is_lost(regsh):
    regsh.publish("create", "root/a")
    clients = [regsh.start("set", f"root/a/k{number}", str(number)) for number in range(20)]
    for client in clients:
        assert client.communicate(timeout=60) == (b"", b"")
        assert client.returncode == 0
    regsh.do("commit")
    assert sorted(regsh.do("get", "root/a").splitlines()) == sorted(
        f"key root/a/k{number}" for number in range(20))


def test_the_first_writes_of_several_clients_make_one_store(regsh):
    clients = [regsh.start("set", f"root/k{number}", "1") for number in range(8)]
    for client in clients:
        assert client.communicate(timeout=60) == (b"", b"")
        assert client.returncode == 0
    assert len(regsh.do("diff").splitlines()) == 8


def test_a_listing_that_is_read_slowly_keeps_no_writer_waiting(regsh, tmp_path):
    text = document("".join(directory(f"connection-{i:04}-" + "x" * 80) for i in range(1500)))
    regsh.publish("import", written(tmp_path / "a.xml", text))
    listing = regsh.start("get", "root/a", bufsize=0)
    first = listing.stdout.readline()
    wait_until_pipe_is_full(listing.stdout)
    path = os.fsdecode(first).split()[1]
    regsh.publish("set", path + "/hasDesktopIcon", "1")
    assert listing.poll() is None
    rest, errors = listing.communicate(timeout=60)
    assert (len(rest.splitlines()), errors, listing.returncode) == (1499, b"", 0)


def wait_until_pipe_is_full(stream):
    """Returns when the writer has written all that goes into the pipe and sleeps."""
    waiting = bytearray(4)
    previous = -1
    while True:
        fcntl.ioctl(stream, termios.FIONREAD, waiting)
        amount = int.from_bytes(waiting, sys.byteorder)
        if amount == previous and amount >= 4096:
            return
        previous = amount
        time.sleep(0.05)


# Killed clients


def kill_at_random_moments(regsh, words, tries, seed):
    """Runs the client again and again and kills it; the longest delay is that of a whole run."""
    started = time.monotonic()
    regsh.do(*words)
    whole = time.monotonic() - started
    chance = random.Random(seed)
    for _ in range(tries):
        yield None
        process = regsh.start(*words)
        time.sleep(chance.uniform(0, 1.2 * whole))
        process.send_signal(signal.SIGKILL)
        process.communicate(timeout=60)
        yield process.returncode


def test_a_killed_import_is_staged_whole_or_not_at_all(regsh, tmp_path):
    value = ["old", "new"]
    files = [written(tmp_path / f"{text}.xml", many_connections(100, 20, text)) for text in value]
    regsh.publish("import", files[0])
    seen = set()
    runs = kill_at_random_moments(regsh, ("import", files[1]), 40, 1)
    for _ in runs:
        regsh.do("import", files[0])
        assert regsh.do("diff") == ""
        status = next(runs)
        changed = len(regsh.do("diff").splitlines())
        assert changed in ((0, 2000) if status != 0 else (2000,))
        seen.add(status)
    assert -signal.SIGKILL in seen


def test_a_killed_commit_publishes_all_or_nothing(regsh, tmp_path):
    value = ["old", "new"]
    files = [written(tmp_path / f"{text}.xml", many_connections(100, 20, text)) for text in value]
    regsh.publish("import", files[0])
    before = regsh.do("tree")
    regsh.do("import", files[1])
    seen = set()
    runs = kill_at_random_moments(regsh, ("commit", "root/ConnectionType"), 40, 2)
    after = None
    for _ in runs:
        after = after or regsh.do("tree")
        regsh.publish("import", files[0])
        regsh.do("import", files[1])
        status = next(runs)
        assert regsh.do("tree") in ((before, after) if status != 0 else (after,))
        seen.add(status)
    assert before != after
    assert -signal.SIGKILL in seen


def test_a_killed_first_write_leaves_an_empty_registry_or_its_work(tmp_path):
    for number in range(30):
        regsh = Client(tmp_path / str(number) / "registry.db")
        process = regsh.start("set", "root/a", "1")
        time.sleep(random.Random(number).uniform(0, 0.02))
        process.send_signal(signal.SIGKILL)
        process.communicate(timeout=60)
        assert regsh.do("diff") in ("", '+ root/a = "1"\n')
        regsh.publish("set", "root/a", "1")
        assert regsh.do("get", "root/a") == "root/a 1\n"
        assert os.listdir(regsh.store.parent) == ["registry.db"]
