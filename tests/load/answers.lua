-- wrk script for the list server's load run: each connection walks the
-- request mix an update run makes (and some that must be answered 404),
-- and every answer is checked against what the folder can give: a 200 must
-- bring exactly one of the served files, a 404 the server's "Not Found".
-- The mix and the files come from the environment the driver sets:
--   QUARVEL_LOAD_TARGETS  one request target per line
--   QUARVEL_LOAD_FOLDER   the served folder
local threads = {}

local function readAll(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local bytes = file:read("*a")
  file:close()
  return bytes
end

local targets = {}
for line in (os.getenv("QUARVEL_LOAD_TARGETS") or "/"):gmatch("[^\n]+") do
  targets[#targets + 1] = line
end
-- Served bodies by length; the sample lists all differ in length.
local bodies = {}
local folder = os.getenv("QUARVEL_LOAD_FOLDER") or "."
for _, name in ipairs({"macchecklist.dat", "macpcklist.dat", "macfilterlist.dat",
                       "userchecklist.dat", "fontchecklist.dat", "ver.dat", "welcome.dat",
                       "package.dat", "welcome.txt"}) do
  local bytes = readAll(folder .. "/" .. name)
  if bytes then bodies[#bytes] = bytes end
end

function setup(thread)
  thread:set("id", #threads)
  threads[#threads + 1] = thread
end

function init(args)
  ok, wrong, turn = 0, 0, id or 0
  note = ""
end

function request()
  turn = turn + 1
  return wrk.format("GET", targets[turn % #targets + 1])
end

function response(status, headers, body)
  local right = (status == 200 and bodies[#body] == body) or
                (status == 404 and body == "Not Found\n")
  if right then
    ok = ok + 1
  else
    wrong = wrong + 1
    if note == "" then note = "status " .. status .. ", " .. #body .. " bytes" end
  end
end

function done(summary, latency, requests)
  local ok, wrong, note = 0, 0, ""
  for _, thread in ipairs(threads) do
    ok = ok + thread:get("ok")
    wrong = wrong + thread:get("wrong")
    if note == "" then note = thread:get("note") end
  end
  local e = summary.errors
  io.write(string.format("answers ok=%d wrong=%d first_wrong=%q\n", ok, wrong, note))
  io.write(string.format("errors connect=%d read=%d write=%d timeout=%d\n",
                         e.connect, e.read, e.write, e.timeout))
  io.write(string.format("latency_ms p50=%.2f p99=%.2f max=%.2f\n",
                         latency:percentile(50) / 1000, latency:percentile(99) / 1000,
                         latency.max / 1000))
end
