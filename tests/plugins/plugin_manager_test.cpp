#include "test_support.h"

#include <fstream>

namespace {

/// A manager with one real plug-in in its list, on whose behalf the test calls back.
struct Host {
	std::unique_ptr<CqorSIO_Object> object; // made by the user callback
	std::string seenFile;
	std::string seenInfo;
	int callbackResult = 0;
	bool leavesNull = false;
	std::atomic<int> calls{0};
	CqorSIO_PIManager manager; // goes first

	Host() {
		manager.Create(QOR_BAD_PLUGINS, 0);
		manager.SetUserCallBack(&Host::create, this);
	}

	static int create(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
		auto& self = *static_cast<Host*>(static_cast<CqorSIO_PIManager*>(context)->mUserContext);
		++self.calls;
		auto* record = static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1);
		EXPECT_EQ(code, 1u);
		EXPECT_EQ(p2, nullptr);
		if (self.leavesNull) return self.callbackResult;
		self.seenFile = record->mFileName;
		self.seenInfo = record->mInfo;
		if (std::string(record->mTypeName).size() == 16) {
			self.object.reset(record->mObject = new CqorSIO_VideoCap);
		} else {
			self.object.reset(static_cast<eqorSIO_CREATE_TIMECAP*>(p1)->mObject = new CqorSIO_TimeCap);
		}
		return self.callbackResult;
	}

	CqorSIO_PI* plugIn(const std::string& name) {
		for (int i = 0; i < manager.mPIList.GetCount(); ++i)
			if (std::string(manager.mPIList(i)->GetPath()).find(name) != std::string::npos) return manager.mPIList(i);
		return nullptr;
	}
	int offer(FakeDevice& device) {
		return CqorSIO_PIManager::_manCB(&manager, plugIn("hostile"), qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &device,
		    reinterpret_cast<void*>(&FakeDevice::function));
	}
};

} // namespace

TEST(PlugInManager, LoadsWhatIsAPlugInAndSkipsTheRest) {
	const FreshFolder folder;
	std::filesystem::create_directories(folder.path() / "below");
	std::string extension;
	for (const auto& entry : std::filesystem::directory_iterator(QOR_BAD_PLUGINS)) {
		if (!entry.path().extension().compare(".a")) continue;
		extension = entry.path().extension().string();
		std::filesystem::copy(entry.path(), folder.path() / "below" / entry.path().filename());
	}
	std::ofstream(folder.path() / ("text" + extension)) << "no library at all";

	LogLines log;
	CqorSIO_PIManager flat;
	EXPECT_EQ(flat.Create(folder.text().c_str(), 0), 0);
	EXPECT_EQ(flat.mPIList.GetCount(), 0);
	EXPECT_TRUE(log.has("text" + extension + ") - Cannot load (err="));

	CqorSIO_PIManager manager;
	EXPECT_EQ(manager.Create(folder.text().c_str(), 1), 0);
	ASSERT_EQ(manager.mPIList.GetCount(), 2) << "hostile and refuses; the others have no entry";
	EXPECT_TRUE(log.has("[ERROR] [CqorSIO_PI] "));
	EXPECT_TRUE(log.has("no_entry" + extension + ") - eFunc not found"));
	EXPECT_TRUE(log.has("[OK] piLoad("));
	EXPECT_EQ(manager.mPIList.Get(2), nullptr);
	EXPECT_EQ(manager.mPIList.FindByPIContext(manager.mPIList.Get(1)), manager.mPIList.Get(1));
	EXPECT_EQ(manager.mPIList.FindByPIContext(&manager), nullptr);
	auto* refuses = manager.mPIList.Get(1);
	const auto introductions = reinterpret_cast<int (*)()>(refuses->piGetFunc("introductions"));
	ASSERT_NE(introductions, nullptr);
	EXPECT_EQ(introductions(), 0);
	EXPECT_EQ(manager.mPIList.MsgToAll(nullptr, qorSIO_PI_CALLBACK + 1, 0, 0, nullptr, nullptr), 0);
	EXPECT_EQ(refuses->piGetFunc("absent"), nullptr);
	EXPECT_EQ(refuses->piGetFunc(nullptr), nullptr);
	refuses->piFree();
	EXPECT_EQ(refuses->piFunc(nullptr, 1001, 0, 0, nullptr, nullptr), -1);
	EXPECT_EQ(CqorSIO_PI().piLoad(std::string(400, 'x').c_str()), kFailure);
	EXPECT_EQ(CqorSIO_PI().piLoad(nullptr), kFailure);
	manager.mPIList.Free();
	EXPECT_EQ(manager.mPIList.GetCount(), 0);
}

TEST(PlugInManager, SurvivesAHostilePlugIn) {
	LogLines log;
	Host host;
	const auto answers = reinterpret_cast<const int* (*)()>(host.plugIn("hostile")->piGetFunc("answers"));
	ASSERT_NE(answers, nullptr);
	const int expected[] = {kFailure, 0, 0, kFailure, kFailure, kFailure};
	for (int i = 0; i < 6; ++i) EXPECT_EQ(answers()[i], expected[i]) << i;
	EXPECT_TRUE(log.has("qorSIO_CB_PI_CREATE_OBJECT - Invalid parameters"));
	EXPECT_TRUE(log.has("pi does not accept"));
	EXPECT_TRUE(log.has("CB(4711) from "));
	EXPECT_TRUE(log.has("[OK] Info (!siotype,CqorSIO_Object,%s%nxxx")) << "a plug-in's text is no format";
}

TEST(PlugInManager, MakesTheObjectOfTheType) {
	enum Made { none, plain, byHost };
	static constexpr struct {
		const char* name;
		const char* info;
		int result;
		Made made;
		const char* logged;
	} cases[] = {
	    {"plain", "!siotype,CqorSIO_Object", 0, plain, "  Type=[CqorSIO_Object]"},
	    {"other case of the type", "!siotype,cqorsio_object", 0, plain, "  Type=[cqorsio_object]"},
	    {"camera behind other items", "name,x,!siotype, \"CqorSIO_VideoCap\" ,y", 0, byHost, "Type=[CqorSIO_VideoCap]"},
	    {"timing device", "!siotype,CQORSIO_TIMECAP", 0, byHost, "Type=[CQORSIO_TIMECAP]"},
	    {"other case of the key", "!SIOTYPE,CqorSIO_VideoCap", kFailure, none, "  Type=[]"},
	    {"unknown type", "!siotype,Toaster", kFailure, none, "Unknown piType"},
	    {"no interpreter", "!siotype,Toaster", kFailure, none, "No interpreter for the class (Toaster)"},
	    {"longer than the type", "!siotype,CqorSIO_Object2", kFailure, none, "Unknown piType"},
	    {"empty line", "", kFailure, none, "[OK] Info ()"},
	};
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		Host host;
		LogLines log;
		FakeDevice device;
		device.info = c.info;
		EXPECT_EQ(host.offer(device), c.result);
		EXPECT_TRUE(log.has(c.logged));
		EXPECT_EQ(host.calls, c.made == byHost);
		if (c.made != byHost) continue;
		EXPECT_EQ(host.seenInfo, c.info);
		EXPECT_EQ(host.seenFile.rfind("hostile.", 0), 0u);
	}
}

TEST(PlugInManager, RefusesWhatHostOrPlugInRefuse) {
	Host host;
	LogLines log;
	FakeDevice device;
	device.info = "!siotype,CqorSIO_VideoCap";
	host.callbackResult = 1;
	EXPECT_EQ(host.offer(device), kFailure);
	host.callbackResult = 0;
	host.leavesNull = true;
	EXPECT_EQ(host.offer(device), kFailure);
	host.leavesNull = false;
	device.attachResult = 7;
	EXPECT_EQ(host.offer(device), kFailure);
	EXPECT_TRUE(log.has("pi does not accept"));
	EXPECT_NE(host.object, nullptr) << "not deleted";
	device.infoResult = 1;
	EXPECT_EQ(host.offer(device), 0) << "no description: ignored silently";
	device.infoResult = 0;
	host.manager.SetUserCallBack(nullptr, nullptr);
	EXPECT_EQ(host.offer(device), kFailure);
	EXPECT_TRUE(log.has("No interpreter for the class (CqorSIO_VideoCap)"));
}

TEST(PlugInManager, AnswersUnknownAndDeadCallers) {
	FakeDevice device;
	auto* function = reinterpret_cast<void*>(&FakeDevice::function);
	auto host = std::make_unique<Host>();
	auto* manager = &host->manager;
	auto* plugIn = host->plugIn("hostile");
	EXPECT_EQ(CqorSIO_PIManager::_manCB(nullptr, plugIn, 10010, 0, 0, &device, function), kFailure);
	EXPECT_EQ(CqorSIO_PIManager::_manCB(manager, &device, 10010, 0, 0, &device, function), kFailure);
	EXPECT_EQ(CqorSIO_PIManager::_manCB(manager, nullptr, 10010, 0, 0, &device, function), kFailure);
	host.reset();
	EXPECT_EQ(CqorSIO_PIManager::_manCB(manager, plugIn, 10010, 0, 0, &device, function), kFailure);
}

TEST(PlugInManager, TakesCallsOfManyThreadsUntilItsDestruction) {
	auto host = std::make_unique<Host>();
	host->leavesNull = true;
	auto* manager = &host->manager;
	auto* plugIn = host->plugIn("hostile");
	auto& calls = host->calls;
	std::atomic<bool> done{false};
	std::vector<std::thread> threads;
	for (int i = 0; i < 3; ++i) {
		threads.emplace_back([&] {
			FakeDevice device;
			device.info = "!siotype,CqorSIO_TimeCap";
			while (!done)
				EXPECT_EQ(CqorSIO_PIManager::_manCB(manager, plugIn, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &device,
				              reinterpret_cast<void*>(&FakeDevice::function)),
				    kFailure);
		});
	}
	EXPECT_TRUE(eventually([&] { return calls > 20; }));
	host->manager.Create(QOR_BAD_PLUGINS, 0); // the list grows meanwhile
	EXPECT_EQ(host->manager.mPIList.GetCount(), 4);
	host.reset();
	done = true;
	for (auto& thread : threads) thread.join();
}
