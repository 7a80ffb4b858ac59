"""Setup commands: `init` and the texts it installs for agents."""
