#include "RowImage.h"

RowImage::RowImage(const char* relation)
    : relation_(relation ? relation : ""), relationIsNull_(relation == nullptr) {}

Firebird::IReplField* RowImage::getFields() {
  cursor_.reset();
  return &cursor_;
}

const char* RowImage::Cursor::getName() {
  const Field& f = field();
  return f.nameIsNull ? nullptr : f.name.c_str();
}

const RowImage::Field RowImage::Cursor::kNoField;

void RowImage::Cursor::reset() {
  index_ = 0;
  current_ = fields_.empty() ? nullptr : &fields_[0];
}

bool RowImage::Cursor::moveNext() {
  // Moving past the end keeps the cursor not valid; the plugin moves an exhausted old-image
  // cursor along with the new one.
  if (index_ < fields_.size()) ++index_;
  current_ = index_ < fields_.size() ? &fields_[index_] : nullptr;
  return isValid();
}
