#include "test_support.h"

namespace {

namespace fs = std::filesystem;

CqorSIO_PI* plugIn(CqorSIO_PIManager& manager, const std::string& name) {
	for (int i = 0; i < manager.mPIList.GetCount(); ++i)
		if (std::string(manager.mPIList(i)->GetPath()).find(name) != std::string::npos) return manager.mPIList(i);
	return nullptr;
}

/// A manager with real plug-ins in its list, on behalf of one of which the test calls back.
struct Host {
	std::unique_ptr<CqorSIO_Object> object; // made by the user callback
	std::string seenFile, seenInfo;
	int callbackResult = 0;
	bool leavesNull = false;
	std::atomic<int> calls{0};
	CqorSIO_PIManager manager; // goes first
	CqorSIO_PI* hostile;

	Host() {
		manager.Create(QOR_BAD_PLUGINS, 0);
		manager.SetUserCallBack(&Host::create, this);
		hostile = plugIn(manager, "hostile");
	}
	static int create(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
		auto& self = *static_cast<Host*>(static_cast<CqorSIO_PIManager*>(context)->mUserContext);
		++self.calls;
		EXPECT_TRUE(code == 1 && !p2);
		if (self.leavesNull) return self.callbackResult;
		auto* record = static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1);
		self.seenFile = record->mFileName;
		self.seenInfo = record->mInfo;
		if (std::string(record->mTypeName) == "CqorSIO_VideoCap")
			self.object.reset(record->mObject = new CqorSIO_VideoCap);
		else
			self.object.reset(static_cast<eqorSIO_CREATE_TIMECAP*>(p1)->mObject = new CqorSIO_TimeCap);
		return self.callbackResult;
	}
};

} // namespace

TEST(PlugInManager, LoadsWhatIsAPlugInAndSkipsTheRest) {
	const TempFolder folder;
	fs::copy(QOR_BAD_PLUGINS, folder.path("below"));
	for (const char* name : {"text.dll", "text.so"}) writeFile(folder.path(name), "no library at all");
	LogCapture log;
	CqorSIO_PIManager manager;
	EXPECT_TRUE(manager.Create(folder.path().c_str(), 0) == 0 && manager.mPIList.GetCount() == 0);
	ASSERT_TRUE(manager.Create(folder.path().c_str(), 1) == 0 && manager.mPIList.GetCount() == 2)
	    << "hostile and refuses; the others have no entry";
	auto* refuses = plugIn(manager, "refuses");
	const std::string extension = fs::path(refuses->GetPath()).extension().string();
	EXPECT_TRUE(log.has("text" + extension + ") - Cannot load (err=") && log.has("[ERROR] [CqorSIO_PI] "));
	EXPECT_TRUE(log.has("no_entry" + extension + ") - eFunc not found") && log.has("[OK] piLoad("));
	EXPECT_TRUE(!manager.mPIList.Get(2) && manager.mPIList.FindByPIContext(refuses) == refuses);
	const auto introductions = reinterpret_cast<int (*)()>(refuses->piGetFunc("introductions"));
	ASSERT_TRUE(introductions && introductions() == 0);
	EXPECT_EQ(manager.mPIList.MsgToAll(nullptr, qorSIO_PI_CALLBACK + 1, 0, 0, nullptr, nullptr), 0);
	EXPECT_TRUE(!refuses->piGetFunc("absent") && !refuses->piGetFunc(nullptr));
	refuses->piFree();
	EXPECT_EQ(refuses->piFunc(nullptr, 1001, 0, 0, nullptr, nullptr), -1);
	EXPECT_EQ(CqorSIO_PI().piLoad(std::string(400, 'x').c_str()), kFailure);
	manager.mPIList.Free();
	EXPECT_EQ(manager.mPIList.GetCount(), 0);
}

TEST(PlugInManager, SurvivesAHostilePlugIn) {
	LogCapture log;
	Host host;
	const auto answers = reinterpret_cast<const int* (*)()>(host.hostile->piGetFunc("answers"));
	ASSERT_NE(answers, nullptr);
	EXPECT_EQ(
	    std::vector<int>(answers(), answers() + 5), (std::vector<int>{kFailure, 0, kFailure, kFailure, kFailure}));
	for (const char* line : {"qorSIO_CB_PI_CREATE_OBJECT - Invalid parameters", "CB(4711) from ",
	         "[OK] Info (!siotype,CqorSIO_Object,%s%nxxx"})
		EXPECT_TRUE(log.has(line)) << line;
}

TEST(PlugInManager, MakesTheObjectOfTheTypeUnlessHostOrPlugInRefuse) {
	using Hurdle = void (*)(Host&, FakeDevice&);
	static constexpr char kCamera[] = "!siotype,CqorSIO_VideoCap";
	static constexpr char kNone[] = "No interpreter for the class (CqorSIO_VideoCap)";
	static const struct {
		const char* name;
		const char* info;
		int result;
		bool made; // by the host
		const char* logged;
		Hurdle hurdle = [](Host&, FakeDevice&) {};
	} cases[] = {
	    {"plain", "!siotype,CqorSIO_Object", 0, false, "  Type=[CqorSIO_Object]"},
	    {"camera behind other items", "x,!siotype, \"CqorSIO_VideoCap\" ,y", 0, true, "Type=[CqorSIO_VideoCap]"},
	    {"timing device", "!siotype,CQORSIO_TIMECAP", 0, true, "Type=[CQORSIO_TIMECAP]"},
	    {"other case of the key", "!SIOTYPE,CqorSIO_VideoCap", kFailure, false, "  Type=[]"},
	    {"unknown type", "!siotype,Toaster", kFailure, false, "Unknown piType"},
	    {"longer than the type", "!siotype,CqorSIO_Object2", kFailure, false, "Unknown piType"},
	    {"empty line", "", kFailure, false, "[OK] Info ()"},
	    {"forged line", "!siotype,X\n[OK] all", kFailure, false, "[OK] Info (!siotype,X\\n[OK] all)"},
	    {"host fails", kCamera, kFailure, true, kNone, [](Host& h, FakeDevice&) { h.callbackResult = 1; }},
	    {"host makes none", kCamera, kFailure, false, kNone, [](Host& h, FakeDevice&) { h.leavesNull = true; }},
	    {"plug-in refuses, object stays", kCamera, kFailure, true, "pi does not accept",
	        [](Host&, FakeDevice& d) { d.results[qorSIO_OBJ_ATTACH] = 7; }},
	    {"no description, ignored", kCamera, 0, false, "qorSIO_CB_PI_CREATE_OBJECT (context=",
	        [](Host&, FakeDevice& d) { d.results[qorSIO_OBJ_INFORMATION] = 1; }},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		Host host;
		LogCapture log;
		FakeDevice device;
		device.info = c.info;
		c.hurdle(host, device);
		EXPECT_EQ(offer(&host.manager, host.hostile, device), c.result);
		EXPECT_TRUE(log.has(c.logged));
		EXPECT_TRUE((host.object != nullptr) == c.made && (host.seenFile.rfind("hostile.", 0) == 0) == c.made);
		EXPECT_EQ(host.seenInfo, c.made ? c.info : "");
	}
}

TEST(PlugInManager, TakesCallsOfManyThreadsUntilItsDestruction) {
	auto host = std::make_unique<Host>();
	host->leavesNull = true;
	std::atomic<bool> done{false};
	const auto offerOn = [&done, manager = &host->manager, hostile = host->hostile] {
		FakeDevice device;
		device.info = "!siotype,CqorSIO_TimeCap";
		while (!done) EXPECT_EQ(offer(manager, hostile, device), kFailure);
	};
	std::thread one(offerOn), other(offerOn);
	EXPECT_TRUE(eventually([&] { return host->calls > 20; }));
	host->manager.Create(QOR_BAD_PLUGINS, 0); // the list grows meanwhile
	EXPECT_EQ(host->manager.mPIList.GetCount(), 4);
	host.reset();
	done = true;
	one.join(), other.join();
}
