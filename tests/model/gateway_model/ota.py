"""The store of firmware images as far as pages from the proxy fill it."""
BLOCK = 32


class PageStore:
    def __init__(self, slots: int):
        self.slots = [None] * slots     # (key, {block number: 32 bytes})
        self.cursor = 0

    def _find(self, key):
        return next((slot[1] for slot in self.slots if slot and slot[0] == key), None)

    def set_page(self, key, page_size: int, number: int, page: bytes) -> bool:
        if page_size % BLOCK:
            return False
        blocks = self._find(key)
        if blocks is None:
            blocks = {}
            self.slots[self.cursor] = (key, blocks)
            self.cursor = (self.cursor + 1) % len(self.slots)
        first = number * page_size // BLOCK
        count = page_size // BLOCK
        if any(first + i not in blocks for i in range(count)):
            for i in range(count):
                blocks[first + i] = page[BLOCK * i:BLOCK * (i + 1)]
        return True

    def get_page(self, key, page_size: int, number: int):
        """The page, or None. Of no bytes: any page of a known image within its 262,144 bytes."""
        blocks = self._find(key)
        if page_size % BLOCK or blocks is None:
            return None
        first = number * page_size // BLOCK
        wanted = range(first, first + page_size // BLOCK)
        if any(block not in blocks for block in wanted):
            return None
        return b"".join(blocks[block] for block in wanted)
