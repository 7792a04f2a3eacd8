"""Runs what comes on standard input by Debian's python3-redis: client.py PORT"""
import json
import sys

import redis

client = redis.Redis(port=int(sys.argv[1]), decode_responses=True)
client.response_callbacks.clear()  # what was replied is to be shown
for line in sys.stdin:
    try:
        print(json.dumps(client.execute_command(*line.split())))
    except redis.ResponseError as error:
        print(json.dumps(f"!ERR {str(error).removeprefix('ERR ')}"))  # it takes the code off some, and not off others

client = redis.Redis(port=int(sys.argv[1]), decode_responses=True)
client.set("big", "x" * (1 << 20))
client.mset({f"n:{i}": i for i in range(5000)})
keys = sorted(set(client.scan_iter(match="n:*", count=500)))
pipeline = client.pipeline(transaction=False)
for _ in range(1000):
    pipeline.incr("counter")
print(json.dumps([len(client.get("big")), client.delete(*keys[:2000]), pipeline.execute()[-1], len(keys)]))
