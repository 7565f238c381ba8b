# Work of Python's own modules whose printed results must not change under the collector.
import hashlib
import json
import re
import zlib

doc = {"items": [{"id": i, "name": "item%04d" % i, "tags": ["t%d" % (i % 7)] * (i % 3)} for i in range(2000)]}
text = json.dumps(doc, sort_keys=True)
back = json.loads(text)
print("json", len(text), back == doc, back["items"][1234]["name"])

found = re.findall(r"item(\d{2})(\d)5", text)
print("re", len(found), found[:3], re.sub(r"t(\d)", r"<\1>", "t1 t2 t3"))

data = text.encode() * 8
for algo in ("md5", "sha1", "sha256", "sha512"):
    print(algo, hashlib.new(algo, data).hexdigest())

packed = zlib.compress(data, 6)
print("zlib", len(data), len(packed), zlib.decompress(packed) == data, zlib.crc32(data))
