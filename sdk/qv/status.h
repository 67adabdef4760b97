#pragma once
// Windows error codes used as statuses throughout the module.
#include <cstdint>

namespace qv::status {
constexpr int32_t kSuccess = 0;
constexpr int32_t kPathNotFound = 3;           // ERROR_PATH_NOT_FOUND
constexpr int32_t kAccessDenied = 5;           // ERROR_ACCESS_DENIED
constexpr int32_t kNotEnoughMemory = 8;        // ERROR_NOT_ENOUGH_MEMORY
constexpr int32_t kNotReady = 21;              // ERROR_NOT_READY
constexpr int32_t kNotSupported = 50;          // ERROR_NOT_SUPPORTED
constexpr int32_t kInvalidParameter = 87;      // ERROR_INVALID_PARAMETER
constexpr int32_t kCallNotImplemented = 120;   // ERROR_CALL_NOT_IMPLEMENTED
constexpr int32_t kBadArguments = 160;         // ERROR_BAD_ARGUMENTS
constexpr int32_t kAlreadyExists = 183;        // ERROR_ALREADY_EXISTS
constexpr int32_t kNoData = 232;               // ERROR_NO_DATA
constexpr int32_t kOperationAborted = 995;     // ERROR_OPERATION_ABORTED
constexpr int32_t kInvalidSize = 632;          // ERROR_INVALID_SIZE
constexpr int32_t kNotAllAssigned = 1300;      // ERROR_NOT_ALL_ASSIGNED
constexpr int32_t kTimeout = 1460;             // ERROR_TIMEOUT
constexpr int32_t kNotFound = 1168;            // ERROR_NOT_FOUND
constexpr int32_t kConnectionInvalid = 1229;   // ERROR_CONNECTION_INVALID
constexpr int32_t kFunctionFailed = 1627;      // ERROR_FUNCTION_FAILED
constexpr int32_t kCreateFailed = 1631;        // ERROR_CREATE_FAILED
constexpr int32_t kNotConnected = 2250;        // ERROR_NOT_CONNECTED
constexpr int32_t kInvalidDataType = 1804;     // ERROR_INVALID_DATATYPE
constexpr int32_t kDependencyNotFound = 5002;  // ERROR_DEPENDENCY_NOT_FOUND
// The host's policy runner: the agent a method belongs to is not there.
constexpr int32_t kAgentNotFound = -5002;

// The name of `status` as the system spells it ("ERROR_INVALID_PARAMETER"),
// for people reading answers and logs; null for a status not listed above.
// One line per status reads as the table it is.
// clang-format off
constexpr const char* Name(int32_t status) {
    switch (status) {
    case kSuccess: return "ERROR_SUCCESS";
    case kPathNotFound: return "ERROR_PATH_NOT_FOUND";
    case kAccessDenied: return "ERROR_ACCESS_DENIED";
    case kNotEnoughMemory: return "ERROR_NOT_ENOUGH_MEMORY";
    case kNotReady: return "ERROR_NOT_READY";
    case kNotSupported: return "ERROR_NOT_SUPPORTED";
    case kInvalidParameter: return "ERROR_INVALID_PARAMETER";
    case kCallNotImplemented: return "ERROR_CALL_NOT_IMPLEMENTED";
    case kBadArguments: return "ERROR_BAD_ARGUMENTS";
    case kAlreadyExists: return "ERROR_ALREADY_EXISTS";
    case kNoData: return "ERROR_NO_DATA";
    case kOperationAborted: return "ERROR_OPERATION_ABORTED";
    case kInvalidSize: return "ERROR_INVALID_SIZE";
    case kNotAllAssigned: return "ERROR_NOT_ALL_ASSIGNED";
    case kTimeout: return "ERROR_TIMEOUT";
    case kNotFound: return "ERROR_NOT_FOUND";
    case kConnectionInvalid: return "ERROR_CONNECTION_INVALID";
    case kFunctionFailed: return "ERROR_FUNCTION_FAILED";
    case kCreateFailed: return "ERROR_CREATE_FAILED";
    case kNotConnected: return "ERROR_NOT_CONNECTED";
    case kInvalidDataType: return "ERROR_INVALID_DATATYPE";
    case kDependencyNotFound: return "ERROR_DEPENDENCY_NOT_FOUND";
    case kAgentNotFound: return "AGENT_NOT_FOUND";
    default: return nullptr;
    }
}
// clang-format on
}  // namespace qv::status
