#include "flowpath_decode.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <set>

namespace zxref {

namespace {

// Up to `max` pieces of `text` cut at `sep`; the last piece keeps the rest.
std::vector<std::string_view> split(std::string_view text, char sep, std::size_t max) {
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < max) {
    const auto at = text.find(sep);
    if (at == std::string_view::npos) break;
    parts.push_back(text.substr(0, at));
    text.remove_prefix(at + 1);
  }
  parts.push_back(text);
  return parts;
}

std::string join(const std::vector<std::string> &fields, std::size_t from, std::size_t to) {
  std::string out;
  for (std::size_t i = from; i < to && i < fields.size(); ++i) {
    if (i > from) out += ',';
    out += fields[i];
  }
  return out;
}

// The blob's '_'-terminated fields, one at a time.
class FieldCursor {
 public:
  explicit FieldCursor(std::string_view text) : text_(text) {}
  bool done() const { return pos_ >= text_.size(); }
  std::size_t pos() const { return pos_; }
  void rewind(std::size_t pos) { pos_ = pos; }
  std::string_view text() const { return text_; }

  std::optional<std::string_view> next() {
    if (done()) return std::nullopt;
    const auto end = std::min(text_.find('_', pos_), text_.size());
    const std::string_view field = text_.substr(pos_, end - pos_);
    pos_ = std::min(end + 1, text_.size());
    return field;
  }
  // Consumes the next field only when it is empty: a missing separator then
  // costs one entry rather than the rest of the blob.
  void skip_empty() {
    const auto at = pos_;
    const auto field = next();
    if (field && !field->empty()) pos_ = at;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

std::optional<BlobEntry> parse_callout(std::string_view field) {
  BlobEntry e;
  e.type = BlobEntry::Type::CallOut;
  e.error = field.front() == 'E';
  const std::size_t need = e.error ? 7 : 6;
  const auto parts = split(field.substr(1), ':', need + 2);
  if (parts.size() < need || parts.size() > need + 1) return std::nullopt;
  const auto seq = zxref::parse_number<long long>(parts[0]);
  const auto mid = zxref::parse_number<long long>(parts[1]);
  const auto duration = zxref::parse_number<long long>(parts[2]);
  const auto kind = zxref::parse_number<int>(parts[3]);
  const auto resource = zxref::parse_number<long long>(parts[4]);
  const auto start = zxref::parse_number<long long>(parts[5]);
  if (!seq || !mid || !duration || !kind || !resource || !start) return std::nullopt;
  e.seq = *seq, e.method_id = *mid, e.ms = *duration, e.kind = *kind;
  e.resource = *resource, e.start_ms = *start;
  if (e.error) {
    const auto status = zxref::parse_number<int>(parts[6]);
    if (!status) return std::nullopt;
    e.status = *status;
  }
  if (parts.size() == need + 1) {
    const auto url = zxref::parse_number<long long>(parts.back());
    if (!url) return std::nullopt;
    e.resource_url = *url;
  }
  return e;
}

// "<mid>:<tid>:1:<url>_0_<ms>__", the URL starting at `url_at`. The URL may
// hold '_', so the entry ends at the first "_0_<ms>__" behind it.
std::optional<BlobEntry> parse_async_entry(FieldCursor &cursor, std::size_t url_at, long long mid,
                                           long long tid) {
  const std::string_view text = cursor.text();
  for (std::size_t p = text.find("_0_", url_at); p != std::string_view::npos;
       p = text.find("_0_", p + 1)) {
    const std::size_t ms_at = p + 3;
    const std::size_t ms_end = text.find("__", ms_at);
    if (ms_end == std::string_view::npos) break;
    const auto ms = zxref::parse_number<long long>(text.substr(ms_at, ms_end - ms_at));
    if (!ms) continue;
    BlobEntry e;
    e.method_id = mid, e.thread_id = tid, e.ms = *ms, e.async = true;
    e.url = std::string(text.substr(url_at, p - url_at));
    cursor.rewind(ms_end + 2);
    return e;
  }
  return std::nullopt;
}

// One entry or exit starting at `head`; the cursor stands behind the head.
std::optional<BlobEntry> parse_method_event(FieldCursor &cursor, std::size_t head_at,
                                            std::string_view head) {
  const auto parts = split(head, ':', 4);
  const auto mid = zxref::parse_number<long long>(parts[0]);
  if (!mid) return std::nullopt;
  std::optional<long long> tid;
  if (parts.size() > 1 && !(tid = zxref::parse_number<long long>(parts[1]))) return std::nullopt;
  if (parts.size() > 2) {
    if (parts.size() < 4 || parts[2] != "1") return std::nullopt;
    const std::size_t url_at = head_at + parts[0].size() + parts[1].size() + 4;
    return parse_async_entry(cursor, url_at, *mid, *tid);
  }

  const auto event_field = cursor.next();
  if (!event_field) return std::nullopt;
  BlobEntry e;
  e.method_id = *mid;
  e.thread_id = tid.value_or(-1);
  const auto ms = cursor.next();
  const auto ms_value = ms ? zxref::parse_number<long long>(*ms) : std::nullopt;
  if (!ms_value) return std::nullopt;
  e.ms = *ms_value;

  if (*event_field == "0") {
    if (tid) {
      cursor.skip_empty();
    } else {
      const auto at = cursor.pos();
      const auto page = cursor.next();
      if (page && !page->empty()) {
        if (const auto id = zxref::parse_number<long long>(*page)) {
          e.page_id = *id;
        } else {
          cursor.rewind(at);
        }
      }
    }
    return e;
  }

  const auto ev = split(*event_field, ':', 2);
  const auto event = zxref::parse_number<int>(ev[0]);
  if (!event || (*event != 1 && *event != 3 && *event != 4)) return std::nullopt;
  if (ev.size() > 1) {
    const auto seq = zxref::parse_number<long long>(ev[1]);
    if (!seq) return std::nullopt;
    e.seq = *seq;
  }
  e.type = BlobEntry::Type::Exit;
  e.event = *event;
  const auto at = cursor.pos();
  if (const auto cpu = cursor.next(); cpu && !cpu->empty()) {
    if (const auto value = zxref::parse_number<long long>(*cpu)) {
      e.cpu = *value;
    } else {
      cursor.rewind(at);
    }
  }
  cursor.skip_empty();
  cursor.skip_empty();
  return e;
}

}  // namespace

ParsedBlob parse_blob(std::string_view blob) {
  ParsedBlob out;
  FieldCursor cursor(blob);
  while (!cursor.done()) {
    const std::size_t head_at = cursor.pos();
    const std::string_view head = *cursor.next();
    const std::size_t after_head = cursor.pos();
    std::optional<BlobEntry> entry;
    if (!head.empty() && (head.front() == 'T' || head.front() == 'E')) {
      entry = parse_callout(head);
    } else if (!head.empty()) {
      entry = parse_method_event(cursor, head_at, head);
    }
    if (entry) {
      out.entries.push_back(std::move(*entry));
    } else {
      ++out.skipped;
      cursor.rewind(after_head);
    }
  }
  return out;
}

CallTree build_call_tree(const std::vector<BlobEntry> &entries) {
  CallTree tree;
  // Only ancestors of the newest node are held, so growing a child list never
  // moves a node on the stack.
  std::vector<CallNode *> stack;
  CallNode *last_closed = nullptr;
  for (const BlobEntry &e : entries) {
    switch (e.type) {
      case BlobEntry::Type::Entry: {
        last_closed = nullptr;
        if (stack.size() >= kMaxCallDepth) {
          ++tree.too_deep;
          break;
        }
        auto &siblings = stack.empty() ? tree.roots : stack.back()->children;
        CallNode &node = siblings.emplace_back();
        node.method_id = e.method_id;
        node.thread_id = e.thread_id;
        node.start_ms = e.ms;
        stack.push_back(&node);
        break;
      }
      case BlobEntry::Type::Exit: {
        // Methods left without an exit are closed with their caller.
        auto it = std::find_if(stack.rbegin(), stack.rend(),
                               [&e](const CallNode *n) { return n->method_id == e.method_id; });
        if (it == stack.rend()) {
          ++tree.unmatched_exits;
          last_closed = nullptr;
          break;
        }
        CallNode *node = *it;
        node->wall_ms = e.ms;
        node->cpu = e.cpu;
        stack.erase(std::prev(it.base()), stack.end());
        last_closed = node;
        break;
      }
      case BlobEntry::Type::CallOut:
        // A backend's call-out follows the exit of the backend's own method.
        if (last_closed && last_closed->method_id == e.method_id) {
          last_closed->callouts.push_back(e);
        } else if (!stack.empty()) {
          stack.back()->callouts.push_back(e);
        } else {
          tree.loose_callouts.push_back(e);
        }
        break;
    }
  }
  return tree;
}

namespace {

// "<id>[F]", the own id of "<own>:<first>:<previous>" being the first.
struct InstanceId {
  long long own = 0, first = 0, prev = 0;
  bool forced = false;
};

std::optional<long long> instance_part(std::string_view text, bool &forced) {
  if (!text.empty() && (text.back() == 'F' || text.back() == 'f')) {
    forced = true;
    text.remove_suffix(1);
  }
  return zxref::parse_number<long long>(text);
}

std::optional<InstanceId> parse_instance(std::string_view text) {
  const auto parts = split(text, ':', 4);
  if (parts.size() != 1 && parts.size() != 3) return std::nullopt;
  InstanceId id;
  const auto own = instance_part(parts[0], id.forced);
  if (!own) return std::nullopt;
  id.own = *own;
  if (parts.size() == 3) {
    const auto first = instance_part(parts[1], id.forced);
    const auto prev = instance_part(parts[2], id.forced);
    if (!first || !prev) return std::nullopt;
    id.first = *first, id.prev = *prev;
  }
  return id;
}

}  // namespace

std::optional<FlowpathHeader> parse_flowpath_header(const Record &r) {
  constexpr std::size_t kFields = 14;
  const auto &f = r.fields;
  if (r.number != 2 || f.size() < kFields) return std::nullopt;
  // Surplus fields are commas inside the URL (the one free-text field).
  const std::size_t extra = f.size() - kFields;
  const auto id = parse_instance(f[1]);
  const auto start = zxref::parse_number<long long>(f[2]);
  const auto tid = zxref::parse_number<long long>(f[3]);
  const auto bt = zxref::parse_number<int>(f[5]);
  auto tail = [&](std::size_t i) -> const std::string & { return f[i + extra]; };
  const auto session = zxref::parse_number<long long>(tail(8));
  const auto page = zxref::parse_number<long long>(tail(10));
  const auto type = zxref::parse_number<int>(tail(12));
  const auto queue = zxref::parse_number<long long>(tail(13));
  if (!id || !start || !tid || !bt || !session || !page || !type || !queue) return std::nullopt;
  FlowpathHeader h;
  h.instance = id->own, h.first_instance = id->first, h.prev_instance = id->prev;
  h.forced = id->forced;
  h.start_sec = *start, h.thread_id = *tid, h.position = f[4], h.bt_id = *bt;
  h.url = join(f, 6, 7 + extra);
  h.correlation = tail(7);
  h.session_id = *session, h.sid = tail(9), h.page_id = *page, h.fp_type = *type;
  h.queue_ms = *queue;
  return h;
}

std::string NameBook::method(long long id) const {
  const auto it = methods.find(id);
  return it != methods.end() ? it->second : "method#" + std::to_string(id);
}

std::string NameBook::bt(int id) const {
  const auto it = bts.find(id);
  return it != bts.end() ? it->second : "BT#" + std::to_string(id);
}

namespace {

// Far above what the agent's blocks add up to; keeps a runaway stream of
// record 3 from growing one flowpath without end.
constexpr std::size_t kMaxBlobBytes = std::size_t{1} << 18;

void append_blob(Flowpath &fp, const std::vector<std::string> &fields, std::size_t from) {
  if (fp.blob.size() < kMaxBlobBytes) {
    fp.blob += join(fields, from, fields.size());
    if (fp.blob.size() > kMaxBlobBytes) fp.blob.resize(kMaxBlobBytes);
  }
}

}  // namespace

Flowpath *FlowpathStore::open_for(long long instance) {
  const auto it = open_.find(instance);
  if (it != open_.end()) return &it->second;
  if (open_.size() >= max_kept_) {
    ++not_kept_;
    return nullptr;
  }
  Flowpath &fp = open_[instance];
  fp.instance = instance;
  return &fp;
}

bool FlowpathStore::add(const Record &r) {
  const auto &f = r.fields;
  auto refuse = [this] {
    ++malformed_;
    return false;
  };
  switch (r.number) {
    case 2: {
      auto header = parse_flowpath_header(r);
      if (!header) return refuse();
      if (Flowpath *fp = open_for(header->instance)) fp->header = std::move(*header);
      return true;
    }
    case 3: {
      const auto id = f.size() >= 3 ? parse_instance(f[1]) : std::nullopt;
      if (!id) return refuse();
      if (Flowpath *fp = open_for(id->own)) append_blob(*fp, f, 2);
      return true;
    }
    case 4: {
      if (f.size() < 9) return refuse();
      const auto id = parse_instance(f[1]);
      const auto status = zxref::parse_number<int>(f[2]);
      const auto category = zxref::parse_number<int>(f[3]);
      const auto cpu = zxref::parse_number<long long>(f[4]);
      const auto resp = zxref::parse_number<long long>(f[5]);
      const auto bt = zxref::parse_number<int>(f[6]);
      const auto type = zxref::parse_number<int>(f[7]);
      if (!id || !status || !category || !cpu || !resp || !bt || !type) {
        return refuse();
      }
      Flowpath fp;
      if (const auto it = open_.find(id->own); it != open_.end()) {
        fp = std::move(it->second);
        open_.erase(it);
      }
      fp.instance = id->own;
      append_blob(fp, f, 8);
      fp.complete = true;
      fp.status = *status, fp.category = *category, fp.cpu = *cpu, fp.resp_ms = *resp;
      fp.bt_id = *bt, fp.fp_type = *type;
      ++finished_count_;
      last_end_ = FlowpathEnd{fp.bt_id, fp.status, fp.category, fp.resp_ms};
      if (finished_.size() < max_kept_) {
        finished_.push_back(std::move(fp));
      } else {
        ++not_kept_;
      }
      return true;
    }
    case 5: {
      const auto id = f.size() >= 3 ? zxref::parse_number<long long>(f.back()) : std::nullopt;
      if (!id) return refuse();
      names_.methods[*id] = join(f, 1, f.size() - 1);
      return true;
    }
    case 7: {
      const auto id = f.size() >= 3 ? zxref::parse_number<int>(f[1]) : std::nullopt;
      if (!id) return refuse();
      names_.bts[*id] = join(f, 2, f.size());
      return true;
    }
    default:
      return false;
  }
}

std::string category_name(int category) {
  switch (category) {
    case 10:
      return "normal";
    case 11:
      return "slow";
    case 12:
      return "very slow";
    case 13:
      return "error";
    default:
      return "category " + std::to_string(category);
  }
}

namespace {

const char *callout_kind(int kind) {
  switch (kind) {
    case 10:
      return "database";
    case 1:
      return "HTTP";
    default:
      return "call-out";
  }
}

void append_callout(std::string &out, const BlobEntry &c, const CallNode *owner,
                    const NameBook &names, std::size_t indent) {
  out.append(indent, ' ');
  out += "-> ";
  out += callout_kind(c.kind);
  if (!owner || owner->method_id != c.method_id) out += " " + names.method(c.method_id);
  out += ", " + std::to_string(c.ms) + " ms at +" + std::to_string(c.start_ms) + " ms";
  if (c.kind == 10 && c.resource > 0) out += ", query #" + std::to_string(c.resource);
  if (c.resource_url >= 0) out += ", url #" + std::to_string(c.resource_url);
  if (c.error) out += ", FAILED " + std::to_string(c.status);
  out += '\n';
}

void append_node(std::string &out, const CallNode &node, const NameBook &names,
                 std::size_t indent) {
  out.append(indent, ' ');
  out += names.method(node.method_id);
  out += "  +" + std::to_string(node.start_ms) + " ms";
  out += node.wall_ms >= 0 ? ", " + std::to_string(node.wall_ms) + " ms" : ", no exit";
  if (node.cpu >= 0) out += ", cpu " + std::to_string(node.cpu);
  out += '\n';
  // Children and call-outs interleaved by start, as they ran.
  auto callout = node.callouts.begin();
  for (const CallNode &child : node.children) {
    for (; callout != node.callouts.end() && callout->start_ms < child.start_ms; ++callout) {
      append_callout(out, *callout, &node, names, indent + 2);
    }
    append_node(out, child, names, indent + 2);
  }
  for (; callout != node.callouts.end(); ++callout) {
    append_callout(out, *callout, &node, names, indent + 2);
  }
}

}  // namespace

std::string render_flowpath(const Flowpath &fp, const NameBook &names) {
  std::string out = "  flowpath " + std::to_string(fp.instance);
  if (fp.header) {
    out += "  " + fp.header->url;
    if (fp.header->first_instance) {
      out += "  (chain " + std::to_string(fp.header->first_instance) + ", called by " +
             std::to_string(fp.header->prev_instance) + ")";
    }
  }
  out += "\n    BT " + names.bt(fp.complete ? fp.bt_id : fp.header ? fp.header->bt_id : 0);
  if (fp.complete) {
    out += ", status " + std::to_string(fp.status) + " (" + category_name(fp.category) + "), " +
           std::to_string(fp.resp_ms) + " ms";
  } else {
    out += ", not finished";
  }
  if (fp.header) out += ", thread " + std::to_string(fp.header->thread_id);
  out += '\n';
  const ParsedBlob parsed = parse_blob(fp.blob);
  const CallTree tree = build_call_tree(parsed.entries);
  for (const CallNode &root : tree.roots) append_node(out, root, names, 4);
  for (const BlobEntry &c : tree.loose_callouts) append_callout(out, c, nullptr, names, 4);
  if (parsed.skipped || tree.unmatched_exits || tree.too_deep) {
    out += "    (" + std::to_string(parsed.skipped) + " malformed pieces, " +
           std::to_string(tree.unmatched_exits) + " unmatched exits, " +
           std::to_string(tree.too_deep) + " entries nested too deep)\n";
  }
  return out;
}

std::vector<const Flowpath *> pick_examples(const std::vector<Flowpath> &finished, std::size_t n) {
  std::vector<const Flowpath *> picked;
  auto take = [&](const Flowpath *fp) {
    if (fp && picked.size() < n && std::find(picked.begin(), picked.end(), fp) == picked.end()) {
      picked.push_back(fp);
    }
  };
  // A flowpath the agent discarded carries only its end, nothing to show.
  auto shown = [](const Flowpath &fp) { return fp.status != -99; };
  const Flowpath *slowest = nullptr;
  const Flowpath *error = nullptr;
  for (const Flowpath &fp : finished) {
    if (!shown(fp)) continue;
    if (!slowest || fp.resp_ms > slowest->resp_ms) slowest = &fp;
    if (!error && (fp.category == 13 || fp.status > 399)) error = &fp;
  }
  take(slowest);
  take(error);
  std::set<int> bts;
  for (const Flowpath *fp : picked) bts.insert(fp->bt_id);
  for (const Flowpath &fp : finished) {
    if (shown(fp) && bts.insert(fp.bt_id).second) take(&fp);
  }
  return picked;
}

}  // namespace zxref
