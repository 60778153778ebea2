"""A model of the gateway's link and dispatch, in Python, which shares no code with the daemon.

link       the byte stuffing of the WIN port
registry   the nodes, in the order in which the daemon's table walks them
gateway    what the daemon answers, forwards, prints and remembers for each frame and each command
messages   how a frame from a bridge is taken apart
commands   how a command of the proxy is turned into a frame for a node
ota        the pages of firmware images
listing    the `pnf` listing
generator  random valid and near-valid frames and commands
rig        the daemon, its peers, and the comparison
"""
