#include "EventWriter.h"

#include "JsonEventWriter.h"
#include "TextEventWriter.h"

std::unique_ptr<EventWriter> EventWriter::create(const std::string& name,
                                                 const EventFormat& format) {
  if (name == "json") return std::make_unique<JsonEventWriter>(format);
  if (name == "text") return std::make_unique<TextEventWriter>(format);
  return nullptr;
}
