// A host of modules: lists those of a folder (or of the standard one below "qorBin") with what
// their files tell, loads them and asks each for the statistics of a few samples.
//
//   module_host [folder]
#include <qor/plugins/dynamic_module_list.h>

#include <cstdio>
#include <iterator>

namespace {

#ifdef _WIN32
constexpr const char* kExtension = "dll";
#else
constexpr const char* kExtension = "so";
#endif

/// The information text as far as it is ASCII.
void printText(const eqorDM_INFO& information) {
	for (const char16_t c : information.mText) {
		if (c == 0) break;
		std::putchar(c < 128 ? static_cast<char>(c) : '?');
	}
	std::putchar('\n');
}

void describe(CqorDynamicModule& module) {
	char version[kQorProductVersionSize] = "";
	module.GetProductVersionString(version);
	std::printf("%s\n  version      %s\n", module.GetFilePath(), *version ? version : "-");
	if (module.RetrieveDMInfo() != 0) return;
	const auto& information = *module.GetInformation();
	std::printf("  information  ");
	printText(information);
	std::printf("  built        %s, %s, %s\n", module.IsDebug() ? "debug" : "release",
	    module.Is64() ? "x64" : "another processor", module.IsUnicode() ? "wide characters" : "8-bit characters");
	if (information.mExtra) std::printf("%s", reinterpret_cast<const char*>(information.mExtra));
}

void ask(CqorDynamicModule& module) {
	double samples[] = {2.0, 4.0, 9.0}, result = 0;
	for (const unsigned long question : {1ul, 2ul}) {
		if (module.Func(question, std::size(samples), 0, samples, &result) == 0)
			std::printf("  answer %lu     %g\n", question, result);
	}
}

} // namespace

int main(int count, char** arguments) {
	CqorDynamicModuleList modules;
	if (count > 1)
		modules.AddByFolder(arguments[1], kExtension, 0);
	else
		modules.AddByQORPlugInsFolder(kExtension, 0);
	for (int i = 0; i < modules.GetCount(); ++i) describe(*modules(i));
	const int loaded = modules.LoadAll();
	std::printf("%d of %d loaded\n", loaded, modules.GetCount());
	for (int i = 0; i < modules.GetCount(); ++i) ask(*modules(i));
	return loaded > 0 ? 0 : 1;
}
