// Feeds arbitrary bytes to the collector's flowpath reading: once as a blob
// into the parser, the call tree and the rendering, once as record lines into
// the run summary, which must render whatever it kept.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "collector_protocol.h"
#include "flowpath_decode.h"
#include "run_summary.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);

  const zxref::ParsedBlob parsed = zxref::parse_blob(bytes);
  const zxref::CallTree tree = zxref::build_call_tree(parsed.entries);
  if (parsed.entries.size() > size) __builtin_trap();
  (void)tree;
  zxref::Flowpath fp;
  fp.blob.assign(bytes);
  fp.complete = true;
  (void)zxref::render_flowpath(fp, zxref::NameBook{});

  zxref::RunSummary run;
  std::size_t start = 0;
  while (start < bytes.size()) {
    const std::size_t end = std::min(bytes.find('\n', start), bytes.size());
    if (auto record = zxref::parse_record(bytes.substr(start, end - start))) run.add(*record);
    start = end + 1;
  }
  (void)run.render(8);
  return 0;
}
