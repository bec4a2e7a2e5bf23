#include "core_test.h"
#include "qor/core/class_manager.h"
#include "qor/core/managed_xml.h"

namespace {

using namespace core_test;

/// Keeps a value in its element and notes the text inside.
class Gain : public Cmc {
public:
	const char* gettype() const override { return type; }
	static int classFunction(unsigned long command, unsigned long, unsigned long, void* out, void*) {
		return managed::classFunction<Gain>("XmlGain", command, out);
	}
	int _mcOnXMLWritePars(CstMemFile* file) override {
		return managed::writeXmlAttribute(file, "value", value.c_str());
	}
	int _mcOnUpdateFromXML(tinyxml2::XMLElement* element) override {
		if (const char* given = managed::xmlAttribute(element, "value")) value = given;
		return 0;
	}
	int _mcOnXMLText(tinyxml2::XMLNode* node, int, int) override { return value += managed::xmlText(node), 1; }
	const char* type = "XmlGain";
	std::string value;
};

struct ManagedXml : testing::Test {
	ManagedXml() {
		qorMCGetManager()->classAdd("Cmc", Cmc::qorMC__CLASSFUNC, nullptr);
		qorMCGetManager()->classAdd("XmlGain", Gain::classFunction, "Cmc");
		root.setname(nullptr);
	}
	~ManagedXml() override { root._mcDestroy(), copy._mcDestroy(); }
	int load(const std::string& text, int flag = 0) {
		CstMemFile file;
		file.Write(text.data(), static_cast<unsigned long>(text.size()));
		return root._mcLoadFromXMLMemFile(&file, flag);
	}
	std::string value(const char* where) { return dynamic_cast<Gain&>(*root._mcFind(where)).value; }

	Cmc root, copy;
	const test_support::TempFolder folder;
	const std::string path = folder.path("x.xml");
};

TEST_F(ManagedXml, WritesTheseBytes) {
	auto* gain = new Gain;
	gain->_mcSetParent(Cmc::_mcCreate(&root, "Cam"));
	gain->setname("g");
	CstMemFile file;
	copy.setname(nullptr);
	copy._mcSaveToXML(&file, 0);
	EXPECT_EQ(root._mcSaveToXML(&file, 1) + gain->_mcSaveToXML(&file, 300), 0);
	EXPECT_EQ(bytesOf(file),
	    "<Cmc  />\r\n\t<Cmc  >\r\n\t\t<Cmc _mcName=\"Cam\"  >\r\n\t\t\t<XmlGain _mcName=\"g\" value=\"\"  />\r\n"
	    "\t\t</Cmc>\r\n\t</Cmc>\r\n" +
	        std::string(255, '\t') + "<XmlGain _mcName=\"g\" value=\"\"  />\r\n");
	gain->type = "two words"; // could not be read back
	EXPECT_EQ(root._mcSaveToXML(&file, 0) & root._mcSaveToXML(nullptr, 0), kQorFailure);
}

TEST_F(ManagedXml, EveryNameReadsBackAsItWas) {
	std::string all;
	for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
	for (const auto& name : {all.substr(0, 127), all.substr(127), " \"<&amp;>' %s "s, "\r\n\t"s})
		Cmc::_mcCreate(&root, name.c_str());
	EXPECT_EQ(root._mcSaveToXMLFile(path.c_str(), 0) + copy._mcLoadFromXMLFile(path.c_str(), 0), 0);
	ASSERT_EQ(copy._mcGetChildCount(), 4);
	for (int i = 0; i < 4; ++i) {
		EXPECT_STREQ(copy._mcGetChild(i)->getname(), root._mcGetChild(i)->getname());
		EXPECT_TRUE(copy._mcGetChild(i)->_mcHasFlag(Cmc::kFlagFromXml));
	}
	EXPECT_EQ(root._mcSaveToXMLFile("", 0) & root._mcLoadFromXMLFile("", 0), kQorFailure);
	copy._mcDestroy();
	EXPECT_EQ(copy._mcSaveToXMLFile(path.c_str(), 0) + root._mcLoadFromXMLFile(path.c_str(), 0), 0); // an empty file
}

TEST_F(ManagedXml, CreatesOrUpdatesByTypeAndName) {
	EXPECT_EQ(load("<?xml version='1.0'?><!-- c --><Cmc _mcName='box'><XmlGain _mcName='deep' value='1'>text<Cmc/>"
	               "</XmlGain></Cmc><XmlGain _mcName='a' value='2'/><Cmc _mcName='" +
	               std::string(300, 'n') + "'/>"),
	    0);
	EXPECT_EQ(value("box.deep"), "1text");
	EXPECT_TRUE(root._mcFind("box.deep.$child[0]")->isname(""));
	EXPECT_EQ(root._mcGetChild(2)->getname(), std::string(254, 'n'));
	const auto update = "<XmlGain _mcName='a' value='7'/><XmlGain _mcName='deep' value='8'/><XmlGain _mcName='b'/>";
	EXPECT_EQ(load(update, 1), 0);
	EXPECT_EQ(value("a") + value("box.deep") + std::to_string(root._mcGetChildCount()), "784");
	EXPECT_EQ(load(update, 0), 0);
	EXPECT_EQ(root._mcGetChildCount(), 7);
	LogLines log;
	EXPECT_EQ(load("<Strange _mcName='s'><XmlGain _mcName='in place'/></Strange>"), 0);
	EXPECT_EQ(log.take(), "[ERROR] [Cmc] : class type (Strange) NOT FOUND\n");
	EXPECT_TRUE(root._mcGetChildCount() == 8 && root._mcFind("in place"));
}

TEST_F(ManagedXml, WhatIsNotWellFormedMakesNoObjects) {
	const auto good = "<Cmc _mcName=\"a\" ><Cmc/></Cmc>"s;
	std::vector<std::string> bad{good + '\0' + good, good + "</Cmc>" + good, "<Cmc>" + good, "<Cmc a=1/>"};
	for (std::size_t length = 1; length < good.size(); ++length) bad.push_back(good.substr(0, length));
	for (int i = 0; i < 20000; ++i) bad[2] += "<Cmc>"; // deeper than any stack would bear
	for (const auto& text : bad) EXPECT_EQ(load(text), kQorFailure) << text.substr(0, 100);
	EXPECT_EQ(root._mcGetChildCount(), 0);
	EXPECT_EQ(load(good + '\0') + load(" "), 0);
	EXPECT_EQ(root._mcGetChildCount(), 1);
}

TEST_F(ManagedXml, ATreeTooDeepToBeReadIsNotWritten) {
	Cmc* last = &root;
	for (int i = 0; i < 96; ++i) last = Cmc::_mcCreate(last, "level");
	EXPECT_EQ(root._mcSaveToXMLFile(path.c_str(), 0) + copy._mcLoadFromXMLFile(path.c_str(), 0), 0);
	Cmc::_mcCreate(last, "too deep");
	LogLines log;
	EXPECT_EQ(root._mcSaveToXMLFile(path.c_str(), 0), kQorFailure);
	EXPECT_EQ(log.take(), "[ERROR] [Cmc] <too deep> : XML text not written: the tree has more than 96 levels, which "
	                      "could not be read back\n");
}

} // namespace
