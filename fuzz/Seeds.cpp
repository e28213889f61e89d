// Writes the first inputs of each target to a folder of its own, by what they show.
//
// Usage: corvane-fuzz-seeds FOLDER TARGET...

#include "HostileTexts.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

using namespace std::string_literals;

namespace {

using Inputs = std::map<std::string, std::string>;

Inputs flagFiles() {
    return {{"beyond-long", std::string(40, '9')},
            {"blanks-before", " \t\n\v\f\r1\n"},
            {"empty", ""},
            {"leading-zeros", std::string(40, '0') + '1'},
            {"nul-behind", "1\0"s},
            {"off", "0"},
            {"on", "1"},
            {"trailing", "+1maybe"},
            {"two", "2"}};
}

Inputs identities() {
    const std::string usual =
        "<identity><model>6</model><family>2</family><revision>3</revision>"
        "<serial> A-1 ~&lt;&amp;&apos; </serial></identity>";
    return {{"complete", "<?xml version=\"1.0\"?>\n<!-- a -->" + usual + '\n'},
            {"cut-short", usual.substr(0, 60)},
            {"doctype", "<!DOCTYPE i [<!ENTITY a \"aaaa\">]>" + usual},
            {"nul-behind", usual + '\0'},
            {"out-of-range", "<identity><model>65536</model><revision>-1</revision></identity>"},
            {"serial-cdata", "<identity><serial><![CDATA[A<B]]></serial></identity>"},
            {"two-roots", usual + usual}};
}

/// A device with the items of an input of managed-objects.
std::string device(const std::string& items) { return "Iorg.bluez.Device1\0"s + items; }

Inputs replies() {
    Inputs inputs{
        {"phone", device("sAddress=00:00:00:00:00:03\0sName=Phone\0sAlias=an alias\0uClass=\0\x5A"
                         "\x02\x0C\0bPaired=1\0bConnected=1\0sModalias=usb:v1D6Bp0246d0542\0"s)},
        {"error", ""},
        {"no-properties", device("")},
        {"name-empty", device("sName=\0sAddress=A\0"s)},
        {"other-types", device("xAddress=\0xName=1\0xClass=22\0bModalias=1\0xPaired=333\0"
                               "uConnected=1\0sRSSI=4\0saddress=lower case\0"s)},
        {"loose-interfaces",
         "Iorg.bluez.Device1\0sName=one\0bPaired=1\0Iorg.bluez.DEVICESet1\0"
         "Icom.example.mydevices\0sName=three\0Iorg.bluez.Devic\0sName=none\0"s},
        {"doubled", device("sName=first\0bPaired=1\0sName=second\0bPaired=\0"s) +
                        device("sName=second\0bConnected=1\0"s)}};
    for (const auto& [folder, property] : {std::pair{"names", "Name"}, {"modalias", "Modalias"}}) {
        for (const auto& [name, text] : corvane::test::hostileTexts(folder)) {
            inputs[property + ("-" + name)] =
                device("sAddress=00:00:00:00:00:01\0s"s + property + '=' + text + '\0');
        }
    }
    return inputs;
}

Inputs seeds(const std::string& target) {
    if (target == "flag-file") return flagFiles();
    if (target == "identity") return identities();
    if (target == "managed-objects") return replies();
    return corvane::test::hostileTexts("modalias");
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        const auto folder = std::filesystem::path(argv[1]) / argv[i];
        std::filesystem::create_directories(folder);
        for (const auto& [name, input] : seeds(argv[i])) {
            std::ofstream(folder / name, std::ios_base::binary) << input;
        }
    }
}
