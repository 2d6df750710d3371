-- Shows recordings of a kestrix bus in Wireshark. `kxctl capture` makes them; docs/recording.md has their form.
--   wireshark -X lua_script:kx.lua FILE        or put this file into the folder for personal Lua plugins
--   kxctl capture -w - | wireshark -X lua_script:kx.lua -k -i -

local kx = Proto("kx", "kestrix bus")

local EVENTS = { "SENT", "QUEUED", "DELIVERED", "REFUSED", "DROPPED", "RECEIVED", "COMPONENTS", "SERVICES", "EVENT",
  "MARK" }
local SENT, DELIVERED, REFUSED, DROPPED, RECEIVED = 1, 3, 4, 5, 6
local TYPES = { "REQ", "RSP", "ERR", "SIG" }
local REQ, RSP, ERR = 1, 2, 3
local COMMANDS = { [0] = "none", "REG-COMPONENT", "UNREG-COMPONENT", "REG-FUNCTION", "REG-SIGNAL", "UNREG-FUNCTION",
  "UNREG-SIGNAL", "SUB-FUNCTION", "SUB-SIGNAL", "UNSUB-FUNCTION", "UNSUB-SIGNAL", "KILL-COMPONENT" }

local field = {
  version = ProtoField.uint8("kx.version", "Version"),
  event = ProtoField.uint8("kx.event", "Event", base.DEC, EVENTS),
  length = ProtoField.uint16("kx.length", "Length of the record's header"),
  sequence = ProtoField.uint32("kx.sequence", "Sequence"),
  lost = ProtoField.uint32("kx.lost", "Lost before it"),
  time = ProtoField.uint64("kx.record_time", "Time, ns since 1970"),
  monotonic = ProtoField.uint64("kx.monotonic", "Monotonic time, ns"),
  sent = ProtoField.uint64("kx.sent", "Sent, ns since 1970"),
  pid = ProtoField.uint32("kx.pid", "Process of the sender"),
  management = ProtoField.bool("kx.management", "Management", 8, nil, 0x01),
  from = ProtoField.string("kx.from", "From"),
  to = ProtoField.string("kx.to", "To"),
  service = ProtoField.string("kx.service", "Service"),
  reason = ProtoField.string("kx.reason", "Reason"),
  dst_siid = ProtoField.uint32("kx.dst_siid", "Receiver's siid"),
  src_siid = ProtoField.uint32("kx.src_siid", "Sender's siid"),
  type = ProtoField.uint8("kx.type", "Type", base.DEC, TYPES),
  cmd = ProtoField.uint8("kx.cmd", "Command"),
  command = ProtoField.string("kx.command", "Command's name"),
  msg_id = ProtoField.uint32("kx.msg_id", "Message id", base.HEX),
  signature = ProtoField.string("kx.signature", "Signature"),
  rest = ProtoField.bytes("kx.rest", "Does not parse"),
  request_in = ProtoField.framenum("kx.request_in", "Request in", base.NONE, frametype.REQUEST),
  answer_in = ProtoField.framenum("kx.answer_in", "Answer in", base.NONE, frametype.RESPONSE),
  after = ProtoField.uint64("kx.after", "Time since the request, ns"),
  after_time = ProtoField.relative_time("kx.time", "Time since the request"),
}

-- By tag: the letter, the bytes of a number (nil: counted), the field.
local VALUES = {
  { letter = "c", size = 1, field = ProtoField.int8("kx.value.c", "signed char") },
  { letter = "y", size = 1, field = ProtoField.uint8("kx.value.y", "unsigned char") },
  { letter = "n", size = 2, field = ProtoField.int16("kx.value.n", "short") },
  { letter = "q", size = 2, field = ProtoField.uint16("kx.value.q", "unsigned short") },
  { letter = "i", size = 4, field = ProtoField.int32("kx.value.i", "int") },
  { letter = "u", size = 4, field = ProtoField.uint32("kx.value.u", "unsigned int") },
  { letter = "s", field = ProtoField.string("kx.value.s", "string") },
  { letter = "ay", field = ProtoField.bytes("kx.value.ay", "buffer") },
  { letter = "b", size = 1, field = ProtoField.bool("kx.value.b", "bool", base.NONE) },
  { letter = "x", size = 8, field = ProtoField.int64("kx.value.x", "long long") },
  { letter = "t", size = 8, field = ProtoField.uint64("kx.value.t", "unsigned long long") },
}

local expert = {
  error = ProtoExpert.new("kx.expert.error", "The answer is ERR", expert.group.RESPONSE_CODE, expert.severity.WARN),
  refused = ProtoExpert.new("kx.expert.refused", "Refused", expert.group.PROTOCOL, expert.severity.WARN),
  dropped = ProtoExpert.new("kx.expert.dropped", "Dropped", expert.group.PROTOCOL, expert.severity.WARN),
  lost = ProtoExpert.new("kx.expert.lost", "Records were lost before this", expert.group.SEQUENCE,
    expert.severity.WARN),
  unanswered = ProtoExpert.new("kx.expert.unanswered", "No answer in this recording", expert.group.SEQUENCE,
    expert.severity.NOTE),
  broken = ProtoExpert.new("kx.expert.broken", "It does not parse", expert.group.MALFORMED, expert.severity.ERROR),
}

kx.fields = {}
for _, each in pairs(field) do table.insert(kx.fields, each) end
for _, each in ipairs(VALUES) do table.insert(kx.fields, each.field) end
kx.experts = {}
for _, each in pairs(expert) do table.insert(kx.experts, each) end

-- Adds a field, when somebody looks at it: in a long recording most of the time would go into this.
local function put(tree, what, range, value)
  if not tree:referenced(what) then return end
  if value then tree:add(what, range, value) else tree:add(what, range) end
end

-- What belongs together, found in the first pass: a siid and an id come into use again. All of it is numbers, by the
-- frame of the request or the answer: objects would cost much time in a long recording.
local open  -- the frame of the request, by its ends and its id
local asked_s, asked_ns, has_arrived, is_for_core, further, answer_of, request_of, after

function kx.init()
  open, asked_s, asked_ns, has_arrived, is_for_core = {}, {}, {}, {}, {}
  further, answer_of, request_of, after = {}, {}, {}, {}
end

-- A number in Lua does not hold all of it.
local function seconds_and_ns(time)
  local second = UInt64(1000000000)
  return (time / second):tonumber(), (time % second):tonumber()
end

local function key_of(client, client_siid, server_siid, id)
  return string.format("%s\0%u\0%u\0%u", client, client_siid, server_siid, id)
end

-- Whether the record tells of a request again: that has waited in the core, or was received there.
local function is_further(record, request)
  local has_waited = record.event == DELIVERED or record.event == DROPPED
  return has_waited and not has_arrived[request]
    or record.event == REFUSED and has_arrived[request] and is_for_core[request]
end

local function note_request(record, number)
  local key = key_of(record.from, record.src_siid, record.dst_siid, record.msg_id)
  local request = open[key]
  if request and is_further(record, request) then
    further[number] = true
  else
    request = number
    open[key] = number
    asked_s[number], asked_ns[number] = seconds_and_ns(record.sent > UInt64(0) and record.sent or record.time)
    is_for_core[number] = record.to == "kxcore" or nil
  end
  if record.has_arrived then has_arrived[request] = true end
end

local function note_answer(record, number)
  local key = key_of(record.to, record.dst_siid, record.src_siid, record.msg_id)
  local request = open[key]
  if not request or not record.has_arrived then return end
  open[key] = nil
  answer_of[request] = number
  request_of[number] = request
  local s, ns = seconds_and_ns(record.time)
  after[number] = math.max((s - asked_s[request]) * 1e9 + ns - asked_ns[request], 0)
end

local function add_links(number, tree)
  local span = after[number]
  if span then
    tree:add(field.request_in, request_of[number]):set_generated()
    tree:add(field.after, UInt64(span % 2 ^ 32, math.floor(span / 2 ^ 32))):set_generated()
    tree:add(field.after_time, NSTime(math.floor(span / 1e9), span % 1e9)):set_generated()
  end
  if answer_of[number] then tree:add(field.answer_in, answer_of[number]):set_generated() end
end

-- Where the value that begins at `at`, behind its tag, has its bytes, how many, and where the next one begins;
-- nothing when it is not all there.
local function place_of(kind, buffer, at)
  if kind.size then return at, kind.size, at + kind.size end
  if at + 2 > buffer:len() then return end
  if kind.letter == "ay" then
    local count = buffer(at, 2):uint()
    return at + 2, count, at + 2 + count
  end
  local count = buffer(at, 2):le_uint()
  local stop = at + 2 + count
  if count == 0 or stop > buffer:len() or buffer(stop - 1, 1):uint() ~= 0 then return end
  return at + 2, count - 1, stop
end

local function text_of(kind, range)
  if kind.letter == "s" then return '"' .. range:string(ENC_UTF_8) .. '"' end
  if kind.letter == "ay" then return range:len() .. " bytes" end
  if kind.letter == "b" then return tostring(range:uint() ~= 0) end
  local is_signed = kind.letter:find("[cnix]") ~= nil
  if kind.size == 8 then return tostring(is_signed and range:int64() or range:uint64()) end
  return tostring(is_signed and range:int() or range:uint())
end

-- Adds a value, whose tag is at `at`; it as text. One without bytes has no range of its own.
local function add_value(kind, buffer, at, begin, size, tree)
  if size > 0 then
    if tree:referenced(kind.field) then
      tree:add_packet_field(kind.field, buffer(begin, size), kind.letter == "s" and ENC_UTF_8 or ENC_BIG_ENDIAN)
    end
    return text_of(kind, buffer(begin, size))
  end
  if kind.letter == "s" then
    tree:add(kind.field, "")
    return '""'
  end
  tree:add(buffer(at, begin - at), "buffer: 0 bytes")
  return "0 bytes"
end

-- Adds the values; their signature, and they as text.
local function add_payload(buffer, tree)
  local signature, words, at = "", {}, 0
  while at < buffer:len() do
    local kind = VALUES[buffer(at, 1):uint()]
    local begin, size, stop
    if kind then begin, size, stop = place_of(kind, buffer, at + 1) end
    if not stop or stop > buffer:len() then
      tree:add(field.rest, buffer(at)):add_proto_expert_info(expert.broken)
      return signature .. "?", words
    end
    signature = signature .. kind.letter
    table.insert(words, add_value(kind, buffer, at, begin, size, tree))
    at = stop
  end
  return signature, words
end

local function add_message(record, buffer, tree)
  local header = tree:add(kx, buffer(0, 14), "Header")
  put(header, field.dst_siid, buffer(0, 4))
  put(header, field.src_siid, buffer(4, 4))
  put(header, field.type, buffer(8, 1))
  put(header, field.cmd, buffer(9, 1))
  if record.is_management and COMMANDS[record.cmd] then
    header:add(field.command, buffer(9, 1), COMMANDS[record.cmd])
  end
  put(header, field.msg_id, buffer(10, 4))
  if buffer:len() == 14 then return "" end
  local payload = tree:add(kx, buffer(14), "Payload")
  local signature, words = add_payload(buffer(14):tvb(), payload)
  payload:add(field.signature, signature):set_generated()
  payload:append_text(" (" .. signature .. ")")
  return table.concat(words, " ")
end

-- Adds the record's header, and what of it the rest needs.
local function read_record(buffer, tree)
  local record = {
    event = buffer(1, 1):uint(),
    length = buffer(2, 2):uint(),
    time = buffer(12, 8):uint64(),
    sent = buffer(28, 8):uint64(),
    is_management = bit.band(buffer(40, 1):uint(), 1) ~= 0,
  }
  local head = tree:add(kx, buffer(0, record.length), "Record: " .. (EVENTS[record.event] or "unknown"))
  local at = 0
  for _, each in ipairs({ { "version", 1 }, { "event", 1 }, { "length", 2 }, { "sequence", 4 }, { "lost", 4 },
    { "time", 8 }, { "monotonic", 8 }, { "sent", 8 }, { "pid", 4 }, { "management", 1 } }) do
    put(head, field[each[1]], buffer(at, each[2]))
    at = at + each[2]
  end
  for _, name in ipairs({ "from", "to", "service", "reason" }) do
    local size = buffer(at, 1):uint()
    record[name] = size > 0 and buffer(at + 1, size):string(ENC_UTF_8) or ""
    put(head, field[name], size > 0 and buffer(at + 1, size) or buffer(at, 1), record[name])
    at = at + 1 + size
  end
  record.has_arrived = record.event == SENT or record.event == DELIVERED or record.event == RECEIVED
  if buffer(8, 4):uint() > 0 then head:add_proto_expert_info(expert.lost) end
  return record
end

local function add_warnings(record, pinfo, tree)
  if record.event == REFUSED then tree:add_proto_expert_info(expert.refused, "Refused: " .. record.reason) end
  if record.event == DROPPED then tree:add_proto_expert_info(expert.dropped, "Dropped: " .. record.reason) end
  if record.type == ERR and record.is_of_message then tree:add_proto_expert_info(expert.error) end
  local is_asked = record.type == REQ and record.is_of_message and not answer_of[pinfo.number]
  if pinfo.visited and is_asked and not further[pinfo.number] then
    tree:add_proto_expert_info(expert.unanswered)
  end
end

-- Reads the message, notes what belongs together in the first pass, and fills in the columns.
local function show_message(record, buffer, pinfo, tree)
  record.dst_siid, record.src_siid = buffer(0, 4):uint(), buffer(4, 4):uint()
  record.type, record.cmd, record.msg_id = buffer(8, 1):uint(), buffer(9, 1):uint(), buffer(10, 4):uint()
  if not pinfo.visited and record.is_of_message then
    if record.type == REQ then note_request(record, pinfo.number) end
    if record.type == RSP or record.type == ERR then note_answer(record, pinfo.number) end
  end
  local values = add_message(record, buffer, tree)
  add_links(pinfo.number, tree)
  add_warnings(record, pinfo, tree)
  local command = record.is_management and COMMANDS[record.cmd] or "cmd " .. record.cmd
  local kind = record.is_of_message and (TYPES[record.type] or "type " .. record.type) or EVENTS[record.event]
  local is_failure = record.event == REFUSED or record.event == DROPPED
  local note = is_failure and " -- " .. EVENTS[record.event]:lower() .. ": " .. record.reason or ""
  pinfo.cols.info = string.format("%s %s%s%s %s%s", kind or "?", record.service, record.service ~= "" and " " or "",
    command, values, note)
end

-- Whether the texts behind the fixed part lie within the header, and that within the packet.
local function is_record(buffer)
  if buffer:len() < 41 or buffer(0, 1):uint() ~= 1 then return false end
  local at = 41
  for _ = 1, 4 do
    if at >= buffer:len() then return false end
    at = at + 1 + buffer(at, 1):uint()
  end
  local length = buffer(2, 2):uint()
  return at <= length and length <= buffer:len()
end

function kx.dissector(buffer, pinfo, root)
  local tree = root:add(kx, buffer())
  pinfo.cols.protocol = "KX"
  if not is_record(buffer) then
    tree:add_proto_expert_info(expert.broken, "No record of version 1")
    return
  end
  local record = read_record(buffer, tree)
  record.is_of_message = record.event >= SENT and record.event <= RECEIVED
  pinfo.cols.src = record.from
  pinfo.cols.dst = record.to
  pinfo.cols.info = EVENTS[record.event] or "unknown"
  local body = buffer:len() - record.length
  if body >= 14 then
    show_message(record, buffer(record.length):tvb(), pinfo, tree)
  elseif body > 0 then
    tree:add(field.rest, buffer(record.length)):add_proto_expert_info(expert.broken)
  end
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, kx)
