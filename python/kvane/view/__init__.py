"""The live display: kvane-view RECORDING serves a page that shows the
recording ping by ping as the kernel runs it (see kvane.view.server)."""

from .server import main

__all__ = ["main"]
