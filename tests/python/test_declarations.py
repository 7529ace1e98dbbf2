# The package's C declarations held against the headers themselves: a C program made from the
# package's tables (every record's size and field offsets, every entry point's type, every
# constant, the basic tables) must compile and run against them, and must not once a header
# changes a record, a function or a constant without the package.
import ctypes
import shutil
import subprocess

import pytest
from conftest import ROOT

from zqhandler import Command, Sense
from zqhandler import _declarations as D

INCLUDES = [ROOT / "lib/zqhandler/include", ROOT / "apps/vlmgpiod/include"]


def _fields(record, prefix="", base=0):
    """(path, offset, size) of every field of a ctypes record, nested records' fields too."""
    for name, kind in record._fields_:
        field = getattr(record, name)
        yield prefix + name, base + field.offset, field.size
        if issubclass(kind, (ctypes.Structure, ctypes.Union)):
            yield from _fields(kind, prefix + name + ".", base + field.offset)


def check_program():
    """The C program that holds the package's declarations against the headers."""
    asserts = []

    def check(condition, what):
        asserts.append('_Static_assert(%s, "%s");' % (condition, what))

    for record in (r for r in D.RECORDS if r._c_name_):
        check("sizeof(%s) == %d" % (record._c_name_, ctypes.sizeof(record)), record._c_name_)
        for path, offset, size in _fields(record):
            what = "%s.%s" % (record._c_name_, path)
            check("offsetof(%s, %s) == %d" % (record._c_name_, path, offset), what + " offset")
            check("sizeof(((%s*)0)->%s) == %d" % (record._c_name_, path, size), what + " size")
    for c_type in (t for t in D.C_TYPES if t != "void"):
        check("sizeof(%s) == %d" % (c_type, ctypes.sizeof(D.C_TYPES[c_type])), "type " + c_type)
    for result, name, arguments in D.prototypes():
        check("__builtin_types_compatible_p(__typeof__(&%s), %s (*)(%s))"
              % (name, result, ", ".join(arguments) or "void"), "function " + name)
    constants = {**D.CONSTANTS, **D.GPIO_CONSTANTS}
    constants.update({"BAS_CMD_" + c.name: c.value for c in Command})
    constants.update({"BAS_SENSE_" + s.name: s.value for s in Sense})
    constants.update({"BAS_CMD_LAST": len(Command), "BAS_SENSE_LAST": len(Sense)})
    for name, value in constants.items():
        check("%s == %d" % (name, value), "constant " + name)
    check('__builtin_strcmp(MCAST_ADDR, "%s") == 0' % D.GPIO_MCAST_ADDR, "constant MCAST_ADDR")
    return "\n".join(["#include <stddef.h>", "#include <zqhandler/zqhandler.h>",
                      "#include <vlmgpiod/gpio_event.h>", *asserts, ""])


def compile_errors(folder, includes):
    """What the compiler says of the check program against the headers in `includes`."""
    (folder / "check.c").write_text(check_program())
    return subprocess.run(["cc", "-std=gnu11", "-Wall", "-Werror", "-fsyntax-only",
                           *("-I%s" % include for include in includes), folder / "check.c"],
                          capture_output=True, text=True).stderr


def test_the_declarations_match_the_headers(tmp_path):
    assert compile_errors(tmp_path, INCLUDES) == ""


MUTATIONS = [  # header, text, the text it becomes, what the check names
    ("zqhandler/sony9p.h", "uint8_t len;", "uint16_t len;", "t_s9p_command.len size"),
    ("zqhandler/zqhandler_handle.h", "int32_t timeout;", "int64_t timeout;", "t_zqhandler.proto"),
    ("zqhandler/zqhandler_sony.h", "zqh, int count)", "zqh, long count)", "zqhandler_cmd_step"),
    ("zqhandler/zqhandler_sony.h", "ZQ_SENSE_BYTES 16", "ZQ_SENSE_BYTES 32", "constant ZQ_SENSE_B"),
    ("zqhandler/basic.h", "BAS_CMD_LAST = 21", "BAS_CMD_X = 21, BAS_CMD_LAST = 22", "BAS_CMD_LAST"),
]


@pytest.mark.parametrize("header, text, changed, named", MUTATIONS)
def test_a_header_changed_without_the_package_fails_the_check(tmp_path, header, text, changed,
                                                              named):
    includes = [tmp_path / "include" / folder.parent.name for folder in INCLUDES]
    for source, copy in zip(INCLUDES, includes):
        shutil.copytree(source, copy)
    path = next(include / header for include in includes if (include / header).exists())
    original = path.read_text()
    assert original.count(text) == 1
    path.write_text(original.replace(text, changed))
    assert named in compile_errors(tmp_path, includes)
