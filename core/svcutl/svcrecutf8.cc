// The UTF-8 record: the text record's line with its text in UTF-8.
#include "core/svcutl/svcint.h"
#include "core/svcutl/svcrecord.h"

namespace zar::svc {

bool writeUtf8Record(FILE* stream, zar_svc_record* record, bool lineBreak, va_list args) {
  // A UTF-8 text is rendered as it is; a local one is converted.
  if (record->utf8Source)
    return writeLineRecord(stream, record, lineBreak, RecordText::kOwn, record->sourceCs(), args);
  return writeLineRecord(stream, record, lineBreak, RecordText::kConverted, nullptr, args);
}

}  // namespace zar::svc
