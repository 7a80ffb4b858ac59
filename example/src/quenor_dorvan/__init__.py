"""quenor-dorvan: code intelligence for AI agents, over MCP and the command line."""

__version__ = "0.9.2"
