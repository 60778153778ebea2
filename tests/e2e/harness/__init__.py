"""Independent peers of the daemon: nothing here shares code with it."""
