"""Finds and loads libzqhandler.so.0 and gives each entry point the package calls its C types.

Where the library is looked for, in order:
  1. $ZQHANDLER_LIBRARY, the path of a libzqhandler.so.0 to use (then nothing else is tried);
  2. where the build put it for this copy of the package: beside it in the same install prefix
     (PREFIX/lib), or in the build tree that holds this copy;
  3. the system's loader path (ld.so.conf, LD_LIBRARY_PATH), by its soname.
"""

import ctypes
import os
import types

from . import _config
from ._declarations import C_TYPES, prototypes

ENVIRONMENT = "ZQHANDLER_LIBRARY"


def _candidates():
    named = os.environ.get(ENVIRONMENT)
    if named:
        return [named]
    here = os.path.dirname(os.path.abspath(__file__))
    return [os.path.normpath(os.path.join(here, _config.LIBRARY)), _config.SONAME]


def _load():
    tried = []
    for path in _candidates():
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            tried.append(str(error))
    raise ImportError(
        "zqhandler: cannot load %s (%s); set %s to its path"
        % (_config.SONAME, "; ".join(tried), ENVIRONMENT))


def _declare(library):
    """The declared entry points only, each with its C types: a name the package did not
    declare (and the declaration test did not check) is not reachable."""
    functions = {"path": library._name}
    for result, name, arguments in prototypes():
        try:
            function = getattr(library, name)
        except AttributeError:
            raise ImportError("zqhandler: %s does not export %s: the library and the package "
                              "are not of the same version" % (library._name, name)) from None
        function.restype = C_TYPES[result]
        function.argtypes = [C_TYPES[argument] for argument in arguments]
        functions[name] = function
    return types.SimpleNamespace(**functions)


lib = _declare(_load())
"""The library's declared entry points, and `path`, the library loaded."""


def strerror(code):
    """The library's text of an error code (s9p_strerror), in range or not."""
    return lib.s9p_strerror(code).decode("ascii", "replace")
