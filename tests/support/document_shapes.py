"""Documents that are deep, wide or long in one way, of any size.

They stand in the tool's own layout: parsed and printed they come out unchanged. So a part can be put
into another document, further in by `indent`.
"""

REGISTRY_TYPE = "freerdp"


def siblings(count, indent=""):
    return f"{indent}<a>\n" + f"{indent}  <b/>\n" * count + f"{indent}</a>\n"


def attributes(count, indent=""):
    """So many attributes of one element, each of another name."""
    return f"{indent}<a" + "".join(f' n{number:07}="v{number:07}"' for number in range(count)) + "/>\n"


def text(count, indent=""):
    """One text of about so many bytes, with an entity in every tenth of them."""
    piece = "some &lt; w"
    return f"{indent}<a>{piece * -(-count // len(piece))}</a>\n"


def long_attribute(count, indent=""):
    piece = "some &quot; w"
    return f'{indent}<a b="{piece * -(-count // len(piece))}"/>\n'


def nesting(count, indent=""):
    """So many levels; their indentation makes it larger than its square."""
    rows = [indent + "  " * level for level in range(count)]
    return ("".join(f"{row}<a>\n" for row in rows[:-1]) + f"{rows[-1]}<a/>\n"
            + "".join(f"{row}</a>\n" for row in reversed(rows[:-1])))


def nesting_alone(count):
    """The same without indentation: it is not printed like this."""
    return "<a>" * count + "</a>" * count


SHAPES = {shape.__name__: shape for shape in (siblings, attributes, text, long_attribute, nesting)}

# Registry exports


def connection(number, inside=""):
    label = (f'          <NodeKey name="label">\n            <NodeParam type="string">Label {number}'
             "</NodeParam>\n          </NodeKey>\n")
    return f'        <NodeDir name="id-{number}">\n{label}{inside}        </NodeDir>\n'


def export(connections):
    """The registry export of a type that holds these connections."""
    return ("<Profile>\n  <ProfileRegistry>\n"
            f'    <NodeDir name="{REGISTRY_TYPE}" path="root/ConnectionType/{REGISTRY_TYPE}">\n'
            '      <NodeDir name="connections">\n' + "".join(connections)
            + "      </NodeDir>\n    </NodeDir>\n  </ProfileRegistry>\n"
            "  <ProfileSettings>\n    <Target>\n      <Config>standard</Config>\n    </Target>\n"
            "  </ProfileSettings>\n</Profile>\n")


def export_with(shape, count):
    """An export of one connection that holds a part of that shape."""
    return export([connection(0, shape(count, " " * 10))])
