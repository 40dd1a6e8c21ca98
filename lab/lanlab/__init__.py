"""The lanroster lab: a home LAN in network namespaces, and a sandbox that
runs the daemon in it. See lab/README.md."""
from .util import LabError
from .lab import Lab, Client, Port

__all__ = ["Lab", "Client", "Port", "LabError"]
