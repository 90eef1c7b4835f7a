#include "common/Exception.h"

#include <utility>

Exception::Exception(int codeValue, unsigned lineValue, std::string fileValue,
                     std::string messageValue, int errorNumberValue)
    : code(codeValue)
    , line(lineValue)
    , file(std::move(fileValue))
    , message(std::move(messageValue))
    , errorNumber(errorNumberValue) {}

std::string exceptionRecord(const char* prefix, const Exception& exception) {
    std::string record =
        prefix + exception.file + ":" + std::to_string(exception.line) + ": " + exception.message;
    if (exception.errorNumber != noErrorNumber) {
        record += " " + std::to_string(exception.errorNumber);
    }
    return record;
}
