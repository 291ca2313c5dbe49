#pragma once

#include <memory>
#include <string>
#include <vector>

#include "quelm_orvix.h"

/// Log devices: the named access points of the machine's interface configuration.
namespace korvane {

/// The name of a log device, normalised, in whatever of its spellings it was given:
/// - classic: "NX4120(XLI)"
/// - new: "NX4120.XLI.1"
/// - temporary: "LDCF_TEMP_LOG_DEVICE____3"
///
/// A name in none of them is kept as it was given. Immutable.
class LogDeviceName {
  public:
    /// @throws std::invalid_argument if the name is empty, has 128 characters or more, or begins like a
    ///     temporary name without being one
    explicit LogDeviceName(const std::string& name);
    virtual ~LogDeviceName() = default;

    /// The name in the new spelling; a temporary or unknown name as it is.
    virtual std::string GetLogNameA() const;
    virtual std::wstring GetLogName() const;
    /// The name in the classic spelling; a temporary or unknown name as it is.
    /// @throws std::runtime_error for a name in the new spelling: there is no way back
    virtual std::string GetLogNameClassicA() const;
    virtual std::wstring GetLogNameClassic() const;

  private:
    void Validate(const std::string& name);
    static std::string PreProcessValue(const std::string& name);
    static bool IsTemporaryLogName(const std::string& normalised);

    std::string logName_;
    bool classicName_ = false;
    bool isTempLog_ = false;
    bool unknownFormat_ = false;
};

/// One log device in the configuration. NDI flags are its parameters that are "true" or "false".
///
/// Every operation throws what the configuration library's binding throws, and stays usable after that.
class LogDeviceDatabaseIf {
  public:
    virtual ~LogDeviceDatabaseIf() = default;

    /// Value of a parameter, at most 515 characters; there is no second attempt with a larger buffer.
    /// @throws std::invalid_argument if the name is empty
    /// @throws std::runtime_error if the log device or the parameter cannot be read
    virtual std::wstring ReadStringParameter(const std::wstring& parameterName) = 0;
    /// The same as a decimal number.
    /// @throws std::invalid_argument, std::out_of_range if it is none or does not fit into 32 bits
    virtual unsigned long ReadParameter(const std::wstring& parameterName) = 0;
    virtual std::wstring ReadStringParameterNdi(const std::wstring& parameterName) = 0;
    virtual unsigned long ReadParameterNdi(const std::wstring& parameterName) = 0;
    /// Writes "false".
    /// @throws std::invalid_argument if the name is empty or has more than 260 characters
    /// @throws std::runtime_error if the flag cannot be written
    virtual void DisableFlagNdi(const std::wstring& parameterName) = 0;
    /// Writes "true".
    /// @throws as DisableFlagNdi
    virtual void EnableFlagNdi(const std::wstring& parameterName) = 0;
    /// True if the configuration holds the log device.
    virtual bool Exists() = 0;
};

/// The log device in the configuration library.
class LogDeviceDatabaseOrvix : public LogDeviceDatabaseIf {
  public:
    /// Loads the library.
    /// @throws what Q5orvixIf::LoadLib throws
    LogDeviceDatabaseOrvix(std::unique_ptr<quelm::Q5orvixIf> library, std::shared_ptr<LogDeviceName> name);

    std::wstring ReadStringParameter(const std::wstring& parameterName) override;
    unsigned long ReadParameter(const std::wstring& parameterName) override;
    std::wstring ReadStringParameterNdi(const std::wstring& parameterName) override;
    unsigned long ReadParameterNdi(const std::wstring& parameterName) override;
    void DisableFlagNdi(const std::wstring& parameterName) override;
    void EnableFlagNdi(const std::wstring& parameterName) override;
    bool Exists() override;

  private:
    void WriteParameterInternal(const std::wstring& parameterName, const std::wstring& value);

    std::unique_ptr<quelm::Q5orvixIf> library_;
    std::shared_ptr<LogDeviceName> name_;
};

/// Opens log devices, each with a configuration library of its own.
class LogDeviceDatabaseFactory {
  public:
    virtual ~LogDeviceDatabaseFactory() = default;
    /// @throws what LogDeviceName and LogDeviceDatabaseOrvix throw
    virtual std::shared_ptr<LogDeviceDatabaseIf> create_from_log_device(const std::string& name);
    /// @throws what LogDeviceDatabaseOrvix throws
    virtual std::shared_ptr<LogDeviceDatabaseIf> create_from_log_device(
        const std::shared_ptr<LogDeviceName>& name);
};

/// The log devices that the installation defines by default.
class DefaultLogDeviceDatabaseIf {
  public:
    /// Loads the configuration library.
    /// @throws what Q5orvixIf::LoadLib throws
    static std::unique_ptr<DefaultLogDeviceDatabaseIf> Create();

    virtual ~DefaultLogDeviceDatabaseIf() = default;
    /// Their names in the classic spelling. An entry of more than 255 characters ends the list, as do 10000
    /// entries.
    virtual std::vector<std::string> Installed() = 0;
};

class DefaultLogDeviceDatabaseOrvix : public DefaultLogDeviceDatabaseIf {
  public:
    /// Loads the library.
    /// @throws what Q5orvixIf::LoadLib throws
    explicit DefaultLogDeviceDatabaseOrvix(std::unique_ptr<quelm::Q5orvixIf> library);

    std::vector<std::string> Installed() override;

  private:
    static bool PostProcess(const std::wstring& entry, std::string& name);

    std::unique_ptr<quelm::Q5orvixIf> library_;
};

}  // namespace korvane
