"""The groups of the fault matrix, in the order of its table. A module of cases names its own by GROUP."""
FIGURE_GROUPS = ["Reports", "Names and servers", "Downloads", "Operators", "Bridges", "Registry", "Discovery and proxy",
                 "Log and descriptors", "Doors", "Accounts"]
