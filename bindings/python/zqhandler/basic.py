"""The basic transport commands and senses, numbered as the library numbers them: made from the
library's own table (e_basic_command and e_basic_sense of basic.h, read when the package was
built), never written out here."""

import enum
import keyword

from ._basic import COMMANDS, SENSES
from ._calls import refuse


class _Basic(enum.IntEnum):
    @classmethod
    def of(cls, value, operation):
        """A member from itself, its number or its name ("play", "PLAY")."""
        try:
            return cls[value.upper()] if isinstance(value, str) else cls(value)
        except (KeyError, ValueError):
            raise refuse(operation, "no %s named %r" % (cls.__name__.lower(), value)) from None

    @property
    def frame(self):
        """The Sony frame basic.h gives it (for a sense, with the answer accepted after ";")."""
        return _FRAMES[type(self).__name__][self.name]

    @property
    def method_name(self):
        """The name of the Handle method that sends it: "play", "continue_" (a keyword), ..."""
        name = self.name.lower()
        return name + "_" if keyword.iskeyword(name) else name


_FRAMES = {"Command": {n: f for n, _, f in COMMANDS}, "Sense": {n: f for n, _, f in SENSES}}
Command = _Basic("Command", [(name, value) for name, value, _ in COMMANDS], module=__name__)
Command.__doc__ = "The basic transport commands (e_basic_command)."
Sense = _Basic("Sense", [(name, value) for name, value, _ in SENSES], module=__name__)
Sense.__doc__ = "The basic senses (e_basic_sense)."
