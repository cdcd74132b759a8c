// Failure classes of a call and the exceptions that carry them. They are thrown only inside lpc/
// and to the callers of client proxies; adaptors and servants let none of them out.
#pragma once

#include <stdexcept>

namespace velmor_com::NQ::LPC {

enum LPCErrorCode : int {
    ecPackageError = 0,
    ecLogicError = 1,
    ecProtocolError = 2,
    ecApplicationError = 3,
    ecOperationTimedout = 4,
    ecCommunicationError = 5,
    ecRoutingError = 6,
    ecRoutingErrorStalePPInfoError = 7,
    ecIPCError = 8,
    ecAuthenticationError = 9,
    ecPPProcessNotFound = 10,
    ecVlrLPCAccessError = 11,
    ecServiceNotAvailable = 12,
};

/// A call that failed, with its class.
class LPCError : public std::runtime_error {
  public:
    LPCError(LPCErrorCode code, const char *text) : std::runtime_error(text), code_(code) {}
    LPCErrorCode code() const { return code_; }

  private:
    LPCErrorCode code_;
};

/// A parameter that could not be encoded or decoded, for a reason that the archive names.
class SerializationError : public LPCError {
  public:
    explicit SerializationError(const char *text) : LPCError(ecPackageError, text) {}
};

/// The same for a reason that nobody names.
class UnknownError : public LPCError {
  public:
    explicit UnknownError(const char *text) : LPCError(ecPackageError, text) {}
};

}  // namespace velmor_com::NQ::LPC
