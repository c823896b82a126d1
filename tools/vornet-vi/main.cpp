#include <curl/curl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "Commands.hpp"
#include "DisplayText.hpp"
#include "Extension.hpp"
#include "Folder.hpp"
#include "Notices.hpp"
#include "Options.hpp"
#include "Printer.hpp"
#include "dbus/GLibPtr.hpp"

namespace {

using vornet::vi::Look;
using vornet::vi::Options;

bool wantsColour(Options::Colour colour, bool isTerminal) {
  switch (colour) {
    case Options::Colour::always:
      return true;
    case Options::Colour::never:
      return false;
    case Options::Colour::automatic:
      break;
  }
  const char* noColour = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isTerminal && (noColour == nullptr || *noColour == '\0') &&
         (terminal == nullptr || std::string(terminal) != "dumb");
}

std::unique_ptr<vornet::vi::Printer> makePrinter(const Options& options, vornet::vi::Output& output) {
  if (options.json) return vornet::vi::makeJSONPrinter(output);
  const bool isTerminal = isatty(output.descriptor()) != 0;
  Look look{wantsColour(options.colour, isTerminal), vornet::vi::localeIsUTF8(), std::nullopt};
  if (isTerminal) {
    winsize size{};
    const bool isKnown = ioctl(output.descriptor(), TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    look.width = isKnown ? size.ws_col : 80;
  }
  return vornet::vi::makeTextPrinter(output, look);
}

const char* kindName(vornet::vi::FailureKind kind) {
  using vornet::vi::FailureKind;
  switch (kind) {
    case FailureKind::noBus:
      return "no-bus";
    case FailureKind::notInstalled:
      return "not-installed";
    case FailureKind::notStarted:
      return "not-started";
    case FailureKind::gone:
      return "gone";
    case FailureKind::timedOut:
      return "timed-out";
    case FailureKind::outside:
      return "outside";
    case FailureKind::busy:
    case FailureKind::noRoom:
      return "busy";
    case FailureKind::unhealthy:
      return "unhealthy";
    case FailureKind::interrupted:
    case FailureKind::refused:
      break;
  }
  return "refused";
}

std::string absolute(const std::string& given) {
  if (given.empty()) throw std::runtime_error("an empty path names nothing");
  // The shell's path, with links unresolved, where that is still true.
  const vornet::GCharPtr currentFolder(g_get_current_dir());
  return vornet::vi::absolutePath(given, currentFolder.get());
}

void run(const Options& options, vornet::vi::Output& output, const vornet::vi::Notices& notices) {
  const auto printer = makePrinter(options, output);
  std::vector<std::string> selection;
  for (const std::string& path : options.paths) {
    selection.push_back(absolute(path));
    vornet::vi::requireExisting(selection.back());
  }
  const bool hasFolder = options.command == Options::Command::list || options.command == Options::Command::watch;
  const std::string folder = hasFolder ? absolute(options.folder) : std::string();
  if (hasFolder) vornet::vi::requireFolder(folder);

  vornet::vi::Extension extension(options.timeout);
  switch (options.command) {
    case Options::Command::list:
      return vornet::vi::listFolder(extension, *printer, notices, folder);
    case Options::Command::watch:
      return vornet::vi::watchFolder(extension, *printer, notices, folder, output.descriptor(), options.duration);
    case Options::Command::menu:
      return vornet::vi::showMenu(extension, *printer, selection);
    case Options::Command::perform:
      return vornet::vi::performEntry(extension, *printer, options.action, selection);
    case Options::Command::status:
      return vornet::vi::showStatus(extension, *printer, options.start);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  std::signal(SIGPIPE, SIG_IGN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  int exitCode = EXIT_SUCCESS;
  if (const auto options = vornet::vi::readOptions(argc, argv, exitCode)) {
    const vornet::vi::Notices notices(options->json);
    exitCode = EXIT_FAILURE;
    try {
      vornet::vi::Output output{STDOUT_FILENO};
      run(*options, output, notices);
      exitCode = EXIT_SUCCESS;
    } catch (const vornet::vi::BrokenPipe&) {
      exitCode = EXIT_SUCCESS;
    } catch (const vornet::vi::Failure& failure) {
      notices.error(kindName(failure.kind()), failure.what());
    } catch (const std::exception& error) {
      notices.error("failed", error.what());
    }
  }
  curl_global_cleanup();
  return exitCode;
}
