"""What the tests of the attacks share: documents with a place, the registry, all files."""

from import_run import connections_path, export, type_path

PATH = connections_path("freerdp")
OF_THE_DEVICE = {f"etc/{name}" for name in ("systeminfo", "passwd", "group", "hosts",
                                            "nsswitch.conf")}
SHELL_TRICKS = [
    ";>owned;", "&>owned&", "|cat>owned", "$(>owned)", "`>owned`", ">owned", "';>owned;'",
    '";>owned;"', "'\"'\"';>owned;\"'\"'", "\\';>owned;\\'", "$HOME", "${IFS}", "*", "~", "#",
    "-rf", "--help", "{a,b}", "!!", "A=b", "\\", "it's", "\u00fc$(>owned)"]


def placed(*connections, registry_type="freerdp", path=None, config="standard"):
    """An export that tells the client where its directories belong."""
    document = export(*connections, config=config)
    type_folder = document.children[0].children[0]
    type_folder.attributes = {"name": registry_type, "path": path or type_path(registry_type)}
    del type_folder.children[2], type_folder.children[0]
    return document


def publish(device, *words):
    for command in (words, ("commit",)):
        result = device.regsh(*command, image_type=None)
        assert result.status == 0, result.stderr


def value(device, path):
    answer = device.regsh("get", path, image_type=None)
    return answer.stdout.removeprefix(f"{path} ").removesuffix("\n") if answer.status == 0 else None


def tree(device, path="root"):
    result = device.regsh("tree", path, image_type=None)
    assert result.status == 0, result.stderr
    return result.stdout


def files_of(device):
    """Every file that a program on the device could have made, with its content.

    The registry and what the device itself is made with are left out.
    """
    found = {}
    for top in (device.etc, device.tmp, device.home):
        for path in top.rglob("*"):
            name = path.relative_to(device.folder).as_posix()
            if path.is_file() and name not in OF_THE_DEVICE and not name.startswith("etc/regsh/"):
                found[name] = path.read_bytes()
    return found


def permissions(path):
    """The rights of a file, such as 0o600."""
    return path.stat().st_mode & 0o777


def client_script(device, text):
    """A program that takes the client's place on the device; REGSH in its text is the real one."""
    script = device.folder / "attacker"
    script.write_text("#!/bin/sh\n" + text.replace("REGSH", str(device.programs / "regsh")))
    script.chmod(0o755)
    return script
