"""Instances of each class in a dump of the JVM's own form."""
from collections import Counter

STRING, LOAD_CLASS, HEAP, HEAP_SEGMENT = 0x01, 0x02, 0x0C, 0x1C
CLASS, INSTANCE, OBJECT_ARRAY, PRIMITIVE_ARRAY = 0x20, 0x21, 0x22, 0x23
PRIMITIVE_SIZES = {4: 1, 5: 2, 6: 4, 7: 8, 8: 1, 9: 2, 10: 4, 11: 8}
# Bytes behind the object's id.
ROOTS = {0xFF: (0, 0), 0x01: (1, 0), 0x02: (0, 8), 0x03: (0, 8), 0x04: (0, 4), 0x05: (0, 0), 0x06: (0, 4), 0x07: (0, 0),
         0x08: (0, 8)}


class Reader:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        magic_end = self.data.index(b"\0")
        if not self.data.startswith(b"JAVA PROFILE "):
            raise ValueError("no dump")
        self.at = magic_end + 1
        self.id_size = self.number(4)
        self.at += 8
        self.strings, self.names, self.instances = {}, {}, Counter()

    def number(self, size):
        value = int.from_bytes(self.data[self.at:self.at + size], "big")
        self.at += size
        return value

    def identifier(self):
        return self.number(self.id_size)

    def skip(self, size):
        self.at += size

    def value_size(self, kind):
        return self.id_size if kind == 2 else PRIMITIVE_SIZES[kind]

    def skip_class(self):
        self.at += 7 * self.id_size + 4 + 4
        for _ in range(self.number(2)):
            self.at += 2
            self.skip(self.value_size(self.number(1)))
        for _ in range(self.number(2)):
            self.at += self.id_size
            self.skip(self.value_size(self.number(1)))
        self.skip(self.number(2) * (self.id_size + 1))

    def heap(self, end):
        while self.at < end:
            kind = self.number(1)
            if kind in ROOTS:
                ids, more = ROOTS[kind]
                self.at += (1 + ids) * self.id_size + more
            elif kind == CLASS:
                self.skip_class()
            elif kind == INSTANCE:
                self.at += self.id_size + 4
                self.instances[self.identifier()] += 1
                self.skip(self.number(4))
            elif kind == OBJECT_ARRAY:
                self.at += self.id_size + 4
                count = self.number(4)
                self.instances[self.identifier()] += 1
                self.at += count * self.id_size
            elif kind == PRIMITIVE_ARRAY:
                self.at += self.id_size + 4
                count = self.number(4)
                self.skip(count * PRIMITIVE_SIZES[self.number(1)])
            else:
                raise ValueError(f"sub-record {kind:#x} at {self.at}")

    def read(self):
        while self.at < len(self.data):
            tag = self.number(1)
            self.at += 4
            length = self.number(4)
            end = self.at + length
            if tag == STRING:
                number = self.identifier()
                self.strings[number] = self.data[self.at:end].decode("utf-8", "replace")
            elif tag == LOAD_CLASS:
                self.at += 4
                number = self.identifier()
                self.at += 4
                self.names[number] = self.identifier()
            elif tag in (HEAP, HEAP_SEGMENT):
                self.heap(end)
            self.at = end
        return {self.strings[self.names[number]].replace("/", "."): count for number, count in self.instances.items()}


def instances(path):
    """Class name, as "a.B", to the number of its instances. Arrays of primitives are left out."""
    return Reader(path).read()
