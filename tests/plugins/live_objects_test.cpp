#include "test_support.h"

#include <set>
#include <thread>

/// What plug-ins and hosts do to objects at the wrong moment. Half of it shows under the sanitizers alone.
namespace {

/// Two objects one after the other at the same address.
template <class Object>
struct SamePlace {
	Object* make() { return new (mBytes) Object; }
	alignas(Object) unsigned char mBytes[sizeof(Object)];
};

/// What the plug-in "hostile" was introduced to: manager and pi.
void** known(CqorSIO_PIManager& manager) {
	for (int i = 0; auto* plugIn = manager.mPIList.Get(i); ++i)
		if (void* function = plugIn->piGetFunc("known")) return reinterpret_cast<void** (*)()>(function)();
	return nullptr;
}

} // namespace

TEST(LiveObjects, NoEventOfADeletedObjectReachesTheNextAtItsAddress) {
	static int calls;
	const auto device = [](auto place) {
		FakeDevice first, second;
		auto* object = place.make();
		EXPECT_EQ(object->piAccept(&first, &FakeDevice::function) | first.event(qorSIO_EVENT_ONLINE), 0);
		std::destroy_at(object);
		EXPECT_EQ(first.event(qorSIO_EVENT_ONLINE), kFailure);
		object = place.make();
		object->SetUserCallBack([](auto...) { return ++calls; }, nullptr);
		EXPECT_EQ(object->piAccept(&second, &FakeDevice::function), 0);
		calls = 0;
		EXPECT_TRUE(first.event(qorSIO_EVENT_CONNECTED) == kFailure && calls == 0) << "another's";
		EXPECT_TRUE(second.event(qorSIO_EVENT_CONNECTED) == 0 && calls == 1);
		EXPECT_EQ(offer(second.object, nullptr, first), kFailure);
		std::destroy_at(object);
	};
	device(SamePlace<CqorSIO_VideoCap>());
	device(SamePlace<CqorSIO_TimeCap>());

	SamePlace<CqorSIO_PIManager> place;
	FakeDevice offered;
	auto* manager = place.make();
	manager->Create(QOR_BAD_PLUGINS, 0);
	const std::vector<void*> first(known(*manager), known(*manager) + 2);
	EXPECT_EQ(offer(first[0], first[1], offered), 0);
	std::destroy_at(manager);
	manager = place.make();
	EXPECT_EQ(offer(first[0], first[1], offered), kFailure);
	manager->Create(QOR_BAD_PLUGINS, 0);
	auto* const* second = known(*manager);
	EXPECT_EQ(offer(second[0], second[1], offered), 0);
	EXPECT_EQ(offer(first[0], second[1], offered) & offer(second[0], first[1], offered), kFailure);
	manager->mPIList.Free();
	EXPECT_EQ(offer(second[0], second[1], offered), kFailure);
	std::destroy_at(manager);
}

TEST(LiveObjects, ManyAtOnceHaveIdentitiesOfTheirOwn) {
	std::vector<CqorSIO_Object> objects(5000);
	std::vector<FakeDevice> devices(objects.size());
	std::set<void*> identities;
	for (size_t i = 0; i < objects.size(); ++i) {
		ASSERT_EQ(objects[i].piAccept(&devices[i], &FakeDevice::function) | devices[i].event(1), 0) << i;
		EXPECT_TRUE(identities.insert(devices[i].object).second) << i;
	}
}

TEST(LiveObjects, ADeviceThatAcquiresIsStoppedBeforeItGoes) {
	for (const bool inItsFirstFrame : {false, true}) {
		FakeDevice device;
		auto* camera = new CqorSIO_VideoCap;
		camera->piAccept(&device, &FakeDevice::function);
		uint32_t words[14] = {};
		int answer = kFailure;
		camera->SetUserCallBack([](void*, CqorSIO_VideoCap* c, auto...) { return delete c, 0; }, nullptr);
		if (inItsFirstFrame) // on the thread that starts it, before "start" is answered
			device.onCommand = [&] {
				if (device.commands.back() == "start,") answer = device.event(qorSIO_EVENT_DATA, words);
			};
		EXPECT_TRUE(camera->cmdStart() == 0 && answer == kFailure);
		if (!inItsFirstFrame) delete camera;
		EXPECT_EQ(device.commands, (std::vector<std::string>{"start,", "stop,"}));
	}
}

TEST(LiveObjects, TheOperationSentLastDecidesWhateverIsAnsweredFirst) {
	FakeDevice device;
	CqorSIO_VideoCap camera;
	camera.piAccept(&device, &FakeDevice::function);
	camera.SetUserCallBack([](void*, CqorSIO_VideoCap* c, auto...) { return c->cmdStop(); }, nullptr);
	device.onCommand = [&] {
		if (device.commands.back() != "start,") return;
		uint32_t words[14] = {};
		std::thread([&] { device.event(qorSIO_EVENT_DATA, words); }).join();
	};
	EXPECT_EQ(camera.cmdPrepare() | camera.cmdStart(), 0);
	EXPECT_TRUE(device.commands.back() == "stop," && !camera.isAcquiring() && !camera.isPrepared());
	camera.SetUserCallBack(nullptr, nullptr);
	EXPECT_TRUE(camera.cmdPrepare() == 0 && camera.cmdStart() == 0 && camera.isAcquiring());
}

TEST(LiveObjects, CallbacksMayDoAnythingToTheirObject) {
	using Do = void (*)(CqorSIO_VideoCap*);
	static const Do actions[] = {[](CqorSIO_VideoCap* c) { delete c; },
	    [](CqorSIO_VideoCap* c) { c->SetUserCallBack(nullptr, nullptr); },
	    [](CqorSIO_VideoCap* c) { c->cmdStart(), c->cmdStop(), c->cmdOpen(), c->cmdAllocInternalBuffers(2); },
	    [](CqorSIO_VideoCap* c) { c->SetIntervalRingSize(3), c->SetFrameInfoRingSize(0), c->cmdClose(); },
	    [](CqorSIO_VideoCap* c) { c->setROI(0, 0, 1, 1), delete c; }};
	static Do action;
	static unsigned long when;
	for (const Do each : actions)
		for (const unsigned long code : {40010, 40011, 40100, 40101, 40110, 40200, 40120, 20010}) {
			SCOPED_TRACE(code);
			action = each;
			FakeDevice device;
			auto* camera = new CqorSIO_VideoCap;
			camera->SetIntervalRingSize(4), camera->SetFrameInfoRingSize(4);
			camera->piAccept(&device, &FakeDevice::function);
			when = code == 20010 ? 40010 : code;
			camera->SetUserCallBack(
			    [](void*, CqorSIO_VideoCap* c, unsigned long event, unsigned long, unsigned long, void* p1, void*) {
				    if (event == 40120) *static_cast<int*>(p1) = 1;
				    if (const Do once = event == when ? std::exchange(action, nullptr) : nullptr) once(c);
				    return 0;
			    },
			    nullptr);
			uint32_t words[14] = {};
			if (code == 20010) // an event in the middle of each kind of command
				device.onCommand = [&] { device.event(qorSIO_EVENT_DATA, words); };
			if (code == 40120 || code == 20010)
				camera->setHeight(1);
			else
				for (int i = 0; i < 5; ++i) device.event(code, words);
			device.onCommand = nullptr;
			EXPECT_EQ(action, nullptr);
			if (device.event(1) == 0) delete camera;
		}
}

TEST(LiveObjects, AManagerSurvivesWhatItsCallbackDoesToIt) {
	static std::unique_ptr<CqorSIO_PIManager> manager;
	static void (*action)();
	for (const auto each : {+[] { manager.reset(); }, +[] { manager->mPIList.Free(); },
	         +[] { manager->SetUserCallBack(nullptr, nullptr); }, +[] { manager->Create(QOR_BAD_PLUGINS, 0); }}) {
		action = each;
		manager = std::make_unique<CqorSIO_PIManager>();
		manager->SetUserCallBack(
		    [](auto...) {
			    if (const auto once = std::exchange(action, nullptr)) once();
			    return 1;
		    },
		    nullptr);
		manager->Create(QOR_BAD_PLUGINS, 0);
		EXPECT_EQ(action, nullptr);
	}
	manager.reset();
}

namespace {

/// A context that knows the callback it was set with, and how long it lives.
struct Context {
	int owner;
	std::atomic<bool> alive{true};
};
std::atomic<int> wrong, right;

template <int Owner, bool OfManager, class... Rest>
int judge(void* context, Rest...) {
	const auto* manager = static_cast<CqorSIO_PIManager*>(context);
	const auto* mine = static_cast<Context*>(OfManager ? manager->mUserContext : context);
	std::this_thread::yield();
	const bool same = !OfManager || manager->GetUserContext() == mine;
	++(mine && mine->owner == Owner && mine->alive && same ? right : wrong);
	return 1;
}

/// Changes the pair while two threads call, and lets the former context die as soon as it may.
template <class Callback, bool OfManager = false, class Object, class Call>
void changeWhileCalled(Object& object, Call call) {
	static constexpr Callback callbacks[] = {&judge<0, OfManager>, &judge<1, OfManager>, nullptr};
	wrong = right = 0;
	std::atomic<bool> done{false};
	const auto callOn = [&] {
		while (!done) call(object);
	};
	std::thread one(callOn), other(callOn);
	std::vector<std::unique_ptr<Context>> contexts;
	for (int i = 0; i < 100 || right < 100; ++i) {
		contexts.push_back(std::unique_ptr<Context>(new Context{i % 3}));
		object.SetUserCallBack(callbacks[i % 3], i % 3 == 2 ? nullptr : contexts.back().get());
		if (i > 0) contexts[static_cast<size_t>(i) - 1]->alive = false;
		std::this_thread::yield();
	}
	done = true;
	one.join(), other.join();
	EXPECT_EQ(wrong, 0);
}

} // namespace

TEST(LiveObjects, CallbackAndContextChangeTogether) {
	CqorSIO_VideoCap camera;
	CqorSIO_TimeCap clock;
	CqorSIO_PIManager manager;
	const auto call = [](auto& object) { object.callUserCB(1, 0, 0, nullptr, nullptr); };
	changeWhileCalled<qorSIO_VideoCapFunc>(camera, call);
	changeWhileCalled<qorSIO_TimeCapFunc>(clock, call);
	changeWhileCalled<qorSIO_Func, true>(manager, [](auto& m) { m.userCB(1, 0, 0, nullptr, nullptr); });
}

TEST(LiveObjects, CallbacksThatExchangeEachOthersCallbackDoNotWaitForEachOther) {
	static CqorSIO_VideoCap* cameras[2];
	static std::atomic<int> inside;
	CqorSIO_VideoCap first, second;
	inside = 0;
	for (auto* camera : {&first, &second}) {
		cameras[camera == &second] = camera;
		camera->SetUserCallBack(
		    [](void*, CqorSIO_VideoCap* c, auto...) {
			    ++inside;
			    EXPECT_TRUE(eventually([] { return inside == 2; }));
			    cameras[c == cameras[0]]->SetUserCallBack(nullptr, nullptr);
			    return 0;
		    },
		    nullptr);
	}
	std::thread other([&] { second.callUserCB(1, 0, 0, nullptr, nullptr); });
	EXPECT_EQ(first.callUserCB(1, 0, 0, nullptr, nullptr), 0);
	other.join();
	EXPECT_EQ(first.callUserCB(1, 0, 0, nullptr, nullptr), kFailure);
}
