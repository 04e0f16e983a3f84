// The text record: one line of prefix and text, in the local code set (the
// UTF-8 record, svcrecutf8.cc, is the same line with its text in UTF-8).
#include <string.h>

#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"

namespace zar::svc {

void putTextPrefix(OutBuf& out, zar_svc_record* record, bool lineBreak) {
  // "TIME 0xID PROGRAM SEVERITY COMPONENT SUB FILE LINE 0xTHREAD" or, for a
  // debug record, "TIME PROGRAM DEBUGn COMPONENT SUB FILE LINE 0xTHREAD".
  const zar_svc_prolog& p = record->prolog;
  const char* text[6] = {record->timeText(),
                         p.progname,
                         isDebug(p) ? "DEBUG" : kCodeTable[severityIndex(p.attributes)],
                         p.handle->component,
                         p.handle->table[p.table_index].name,
                         p.file};
  size_t len[6];
  len[0] = record->timeTextLength();
  size_t total = 64 + len[0];  // blanks, id, level, line, thread, separator
  for (int i = 1; i < 6; ++i) total += len[i] = strlen(text[i]);
  char* w = out.reserve(total);
  if (w == nullptr) {  // names too long for the buffer: piece by piece
    out.put(text[0], len[0]);
    if (!isDebug(p)) {
      out.put(" 0x");
      out.hex8(p.message_index, true);
    }
    for (int i = 1; i < 6; ++i) {
      out.put(' ');
      out.put(text[i], len[i]);
      if (i == 2 && isDebug(p)) out.dec(p.attributes & svc_c_debug_mask);
    }
    out.put(' ');
    out.dec(p.line);
    out.put(" 0x");
    out.hex8(zar_svc__mapthreadid(&p.thread_id), false);
    out.put(lineBreak ? '\n' : ' ');
    return;
  }
  char* start = w;
  mem::moveBytes(w, text[0], len[0]);
  w += len[0];
  if (!isDebug(p)) {
    memcpy(w, " 0x", 3);
    w = putHex8(w + 3, p.message_index, true);
  }
  for (int i = 1; i < 6; ++i) {
    *w++ = ' ';
    mem::moveBytes(w, text[i], len[i]);
    w += len[i];
    if (i == 2 && isDebug(p)) *w++ = static_cast<char>('0' + (p.attributes & svc_c_debug_mask));
  }
  *w++ = ' ';
  w = putDec(w, p.line);
  memcpy(w, " 0x", 3);
  w = putHex8(w + 3, zar_svc__mapthreadid(&p.thread_id), false);
  *w++ = lineBreak ? '\n' : ' ';
  out.commit(static_cast<size_t>(w - start));
}

bool writeLineRecord(FILE* stream, zar_svc_record* record, bool lineBreak, RecordText which,
                     nlz_cs_t renderCs, va_list args) {
  // Formatting may need memory and the catalog; it is done before the
  // stream is locked so that the lock is held for writing only.
  const bool unknown = unknownText(record);
  const char* body = nullptr;
  size_t bodyLength = 0;
  format::Context* parsed = nullptr;
  if (unknown) {
  } else if (which == RecordText::kConverted) {
    body = record->convertedText(args, &bodyLength);
  } else if (record->saved()) {
    body = record->text(args, &bodyLength);
  } else {
    parsed = record->parsed(args, renderCs);
  }
  record->timeText();
  bool failed = false;
  {
    StreamHold hold(stream);
    OutBuf out(stream, &failed);
    if (wantsPrefix(record)) putTextPrefix(out, record, lineBreak);
    if (unknown) {
      putUnknown(out, record->prolog.message_index);
    } else if (parsed != nullptr) {
      out.render(parsed);
    } else if (body != nullptr) {
      out.put(body, bodyLength);
    }
    out.put('\n');
  }
  return !failed;
}

bool writeTextRecord(FILE* stream, zar_svc_record* record, bool lineBreak, va_list args) {
  // A UTF-8 text is converted; a local one is rendered as it is.
  return writeLineRecord(stream, record, lineBreak,
                         record->utf8Source ? RecordText::kConverted : RecordText::kOwn,
                         nlz_get_def_cs(), args);
}

}  // namespace zar::svc
