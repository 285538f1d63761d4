#include "ControlRecord.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

using Kind = ControlRecord::Kind;

constexpr size_t kLongestRecord = size_t{64} << 20;
constexpr std::string_view kEscapedNul = "\\xC0\\x80";
constexpr std::array<std::string_view, 6> kTasks = {"BITMAP",   "COMPACT", "DEFRAG",
                                                    "FRAGINFO", "MAP",     "SCAN"};

/** Cuts a line into fields; a comma behind a backslash is no border. */
class Fields {
public:
    explicit Fields(std::string_view line) : _left(line) {}

    [[nodiscard]] bool atEnd() const { return _atEnd; }

    std::string_view next()
    {
        size_t position = 0;
        while (position < _left.size() && _left[position] != ',') {
            position += _left[position] == '\\' ? 2 : 1;
        }
        position = std::min(position, _left.size());
        const std::string_view field = _left.substr(0, position);
        _atEnd = position == _left.size();
        _left.remove_prefix(_atEnd ? position : position + 1);
        return field;
    }

    /** The next field as a number; false when it is none. */
    template <typename Number>
    bool next(Number& number, int base = 10)
    {
        if (_atEnd) {
            return false;
        }
        const std::string_view field = next();
        const char* const end = field.data() + field.size();
        const auto result = std::from_chars(field.data(), end, number, base);
        return result.ec == std::errc() && result.ptr == end;
    }

    /** Everything that is left, commas and all. */
    std::string_view rest()
    {
        _atEnd = true;
        return std::exchange(_left, {});
    }

private:
    std::string_view _left;
    bool _atEnd = false;
};

/** Whether @p line begins a record, and is not the rest of a name with a line break. */
bool beginsRecord(std::string_view line)
{
    if (line == "READY" || line.starts_with("ERROR,")) {
        return true;
    }
    const std::string_view word = line.substr(0, line.find(','));
    return word.size() < line.size() && std::ranges::find(kTasks, word) != kTasks.end();
}

/** Whether more lines can belong to @p line: it holds text from the disk. */
bool mayGoOn(std::string_view line)
{
    const size_t comma = line.find(',');
    if (line.starts_with("ERROR,")) {
        return true;
    }
    if (comma == std::string_view::npos) {
        return false;
    }
    const std::string_view kind = line.substr(comma + 1);
    return kind.starts_with("FILE,") || kind.starts_with("DIR,") || kind.starts_with("ERROR,");
}

bool readFile(Fields& fields, ControlFile& file)
{
    if (!fields.next(file.folderID) || !fields.next(file.fileID) || fields.atEnd()) {
        return false;
    }
    file.path = unescapedField(fields.next());
    if (!fields.next(file.created) || !fields.next(file.changed) || !fields.next(file.read) ||
        !fields.next(file.type, 16) || !fields.next(file.creator, 16)) {
        return false;
    }
    file.extents.clear();
    file.isFragmented = false;
    while (!fields.atEnd()) {
        ControlExtent extent;
        if (!fields.next(extent.start) || !fields.next(extent.count)) {
            return false;
        }
        file.extents.push_back(extent);
    }
    return true;
}

bool readProgress(Fields& fields, ControlRecord& record)
{
    if (!fields.next(record.percent)) {
        return false;
    }
    record.kind = Kind::kProgress;
    if (fields.atEnd()) {
        return true;
    }
    record.kind = Kind::kMove;
    return std::ranges::all_of(record.numbers,
                               [&](uint64_t& number) { return fields.next(number); });
}

bool readNumber(Fields& fields, ControlRecord& record, Kind kind)
{
    record.kind = kind;
    return fields.next(record.numbers[0]);
}

/** Fills @p record from the fields behind its task. */
bool readRecord(Fields& fields, ControlRecord& record)
{
    const std::string_view word = fields.next();
    if (word == "FILE") {
        record.kind = Kind::kFile;
        return readFile(fields, record.file);
    }
    if (word == "PROGRESS") {
        return readProgress(fields, record);
    }
    if (word == "DATA") {
        record.kind = Kind::kBitmapData;
        record.text = fields.rest();
        return true;
    }
    if (word == "LENGTH") {
        return readNumber(fields, record, Kind::kBitmapLength);
    }
    if (word == "FIRSTUNUSEDBLOCK") {
        return readNumber(fields, record, Kind::kFirstUnused);
    }
    if (word == "LASTUSEDBLOCK") {
        return readNumber(fields, record, Kind::kLastUsed);
    }
    if (word == "ERROR") {
        record.kind = Kind::kError;
        record.text = unescapedField(fields.rest());
        return true;
    }
    if (word == "START" || word == "DONE") {
        record.kind = word == "START" ? Kind::kStart : Kind::kDone;
        return fields.atEnd();
    }
    record.kind = Kind::kFragmentation;
    Fields first(word);
    return record.task == "FRAGINFO" && first.next(record.numbers[0]) &&
           fields.next(record.numbers[1]) && fields.next(record.numbers[2]);
}

}  // namespace

std::string unescapedField(std::string_view field)
{
    std::string text;
    text.reserve(field.size());
    while (!field.empty()) {
        if (field.starts_with(kEscapedNul)) {
            text += '\0';
            field.remove_prefix(kEscapedNul.size());
            continue;
        }
        if (field[0] == '\\' && field.size() > 1) {
            field.remove_prefix(1);
        }
        text += field[0];
        field.remove_prefix(1);
    }
    return text;
}

const ControlRecord* ControlRecordReader::addLine(std::string_view line)
{
    if (_hasRest && !beginsRecord(line)) {
        if (_rest.size() < kLongestRecord) {  // no name goes on so long
            _rest += '\n';
            _rest += line;
        }
        return nullptr;
    }
    const ControlRecord* const complete = takeRest();
    if (complete == nullptr && !mayGoOn(line)) {
        return _parse(line);
    }
    _rest = line;
    _hasRest = true;
    _restIsWhole = !mayGoOn(line);
    return complete;
}

const ControlRecord* ControlRecordReader::takeRest()
{
    if (!_hasRest) {
        return nullptr;
    }
    _hasRest = false;
    _restIsWhole = false;
    return _parse(_rest);
}

const ControlRecord* ControlRecordReader::_parse(std::string_view line)
{
    _record.kind = Kind::kUnknown;
    _record.task.clear();
    _record.text.clear();
    if (line == "READY") {
        _record.kind = Kind::kReady;
        return &_record;
    }
    Fields fields(line);
    const std::string_view word = fields.next();
    if (word == "ERROR") {
        _record.kind = Kind::kError;
        _record.text = unescapedField(fields.rest());
        return &_record;
    }
    _record.task = word;
    if (fields.atEnd() || !readRecord(fields, _record)) {
        _record.kind = Kind::kUnknown;
        _record.text = line;
    }
    return &_record;
}
