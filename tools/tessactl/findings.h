#pragma once

#include <string>
#include <vector>

namespace tessactl {

/// One thing that doctor looked at.
struct Finding {
    enum class State {
        kOk,
        kNote,  ///< worth knowing, and may be as it is wanted
        kProblem,
    };
    std::string what;
    State state = State::kOk;
    std::string found;   ///< in words
    std::string advice;  ///< what to do; empty if it is well
};

/// All of them, in the order in which they were found.
class Findings {
  public:
    void Ok(const std::string& what, const std::string& found);
    void Note(const std::string& what, const std::string& found, const std::string& advice = "");
    void Problem(const std::string& what, const std::string& found, const std::string& advice);
    /// A problem if it has to be well, otherwise a note.
    void ProblemOrNote(bool isProblem, const std::string& what, const std::string& found,
                       const std::string& advice);

    bool HasProblems() const;
    /// For people.
    void Print() const;
    std::string Json() const;

  private:
    std::vector<Finding> all_;
};

}  // namespace tessactl
