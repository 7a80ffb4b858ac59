"""Background workers that feed the index."""
