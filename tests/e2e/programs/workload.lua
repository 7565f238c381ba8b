-- String, table and file work whose printed results must not change under the collector.
local words = {}
for i = 1, 20000 do
  words[#words + 1] = string.format("w%05d", (i * 7919) % 20011)
end
table.sort(words)
print("first", words[1], "last", words[#words], "count", #words)

local joined = table.concat(words, ",", 1, 500)
local replaced, n = joined:gsub("w0(%d)", "x%1")
print("gsub", n, #replaced, replaced:sub(1, 40))

local counts = {}
for _, w in ipairs(words) do
  local key = w:sub(-1)
  counts[key] = (counts[key] or 0) + 1
end
local keys = {}
for k in pairs(counts) do keys[#keys + 1] = k end
table.sort(keys)
for _, k in ipairs(keys) do io.write(k, "=", counts[k], " ") end
io.write("\n")

local path = os.tmpname()
local out = assert(io.open(path, "w"))
for i = 1, 5000 do out:write(i, "\t", string.rep("ab", i % 17), "\n") end
out:close()
local total, lines = 0, 0
for line in io.lines(path) do
  total = total + #line
  lines = lines + 1
end
os.remove(path)
print("file", lines, total)

local parts = {}
for piece in ("alpha beta gamma delta epsilon"):gmatch("%a+") do parts[#parts + 1] = piece:upper():reverse() end
print(table.concat(parts, "|"))
