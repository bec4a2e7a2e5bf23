#include "qor/base/mem_file.h"
#include "qor/core/class_manager.h"
#include "qor/core/managed_xml.h"
#include "qor/core/runtime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using namespace std::string_literals;

/// Keeps a value in its element and notes the text inside.
class Gain : public Cmc {
public:
	const char* gettype() const override { return type; }
	static int classFunction(unsigned long command, unsigned long, unsigned long, void* out, void*) {
		return managed::classFunction<Gain>("XmlGain", command, out);
	}
	int _mcOnXMLWritePars(CstMemFile* memfile) override {
		return managed::writeXmlAttribute(memfile, "value", value.c_str());
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
	~ManagedXml() override {
		root._mcDestroy();
		copy._mcDestroy();
		std::filesystem::remove(path);
	}
	int save() { return root._mcSaveToXMLFile(path.c_str(), 0); }
	int load(const std::string& text, int flag = 0) {
		CstMemFile memfile;
		memfile.Write(text.data(), static_cast<unsigned long>(text.size()));
		return root._mcLoadFromXMLMemFile(&memfile, flag);
	}
	std::string value(const char* where) { return dynamic_cast<Gain&>(*root._mcFind(where)).value; }

	Cmc root, copy;
	const std::string path = (std::filesystem::temp_directory_path() / "qor_managed_xml_test.xml").string();
};

TEST_F(ManagedXml, WritesTheseBytes) {
	auto* gain = new Gain;
	gain->_mcSetParent(Cmc::_mcCreate(&root, "Cam"));
	gain->setname("g");
	CstMemFile memfile;
	copy.setname(nullptr);
	copy._mcSaveToXML(&memfile, 0);
	EXPECT_EQ(root._mcSaveToXML(&memfile, 1) + gain->_mcSaveToXML(&memfile, 300), 0);
	unsigned long size = 0;
	const auto* data = static_cast<const char*>(memfile.GetBuffer(&size));
	EXPECT_EQ(std::string(data, size),
	    "<Cmc  />\r\n\t<Cmc  >\r\n\t\t<Cmc _mcName=\"Cam\"  >\r\n\t\t\t<XmlGain _mcName=\"g\" value=\"\"  />\r\n"
	    "\t\t</Cmc>\r\n\t</Cmc>\r\n" +
	        std::string(255, '\t') + "<XmlGain _mcName=\"g\" value=\"\"  />\r\n");
	gain->type = "two words"; // could not be read back
	EXPECT_EQ(root._mcSaveToXML(&memfile, 0) & root._mcSaveToXML(nullptr, 0), kQorFailure);
}

TEST_F(ManagedXml, EveryNameReadsBackAsItWas) {
	std::string all;
	for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
	for (const auto& name : {all.substr(0, 127), all.substr(127), " \"<&amp;>' %s "s, "\r\n\t"s})
		Cmc::_mcCreate(&root, name.c_str());
	ASSERT_EQ(save(), 0);
	ASSERT_EQ(copy._mcLoadFromXMLFile(path.c_str(), 0), 0);
	ASSERT_EQ(copy._mcGetChildCount(), 4);
	for (int i = 0; i < 4; ++i) {
		EXPECT_STREQ(copy._mcGetChild(i)->getname(), root._mcGetChild(i)->getname());
		EXPECT_TRUE(copy._mcGetChild(i)->_mcHasFlag(Cmc::kFlagFromXml));
	}
	root._mcDestroyChilds(1);
	EXPECT_EQ(save() + root._mcLoadFromXMLFile(path.c_str(), 0), 0); // an empty file
	EXPECT_EQ(root._mcSaveToXMLFile("", 0) & root._mcLoadFromXMLFile("", 0), kQorFailure);
}

TEST_F(ManagedXml, CreatesOrUpdatesByTypeAndName) {
	const auto longName = std::string(300, 'n');
	const auto text =
	    "<?xml version='1.0'?><!-- c --><Cmc _mcName='box'><XmlGain _mcName='deep' value='1'>text<Cmc/></XmlGain>"
	    "</Cmc><XmlGain _mcName='a' value='2'/><Cmc _mcName='";
	EXPECT_EQ(load(text + longName + "'/>"), 0);
	EXPECT_EQ(value("box.deep"), "1text");
	EXPECT_TRUE(root._mcFind("box.deep.$child[0]")->isname(""));
	EXPECT_EQ(root._mcGetChild(2)->getname(), longName.substr(0, 254));
	const auto update = "<XmlGain _mcName='a' value='7'/><XmlGain _mcName='deep' value='8'/><XmlGain _mcName='b'/>";
	EXPECT_EQ(load(update, 1), 0);
	EXPECT_EQ(value("a") + value("box.deep"), "78");
	EXPECT_EQ(root._mcGetChildCount(), 4);
	EXPECT_EQ(load(update, 0), 0);
	EXPECT_EQ(root._mcGetChildCount(), 7);
}

TEST_F(ManagedXml, UnknownTypeIsLoggedAndItsElementsAreReadInPlace) {
	std::string line;
	appLogSetFunc([&](const char* text) { return line = text, true; });
	EXPECT_EQ(load("<Strange _mcName='s'><XmlGain _mcName='a'/></Strange>"), 0);
	appLogSetFunc(nullptr);
	EXPECT_NE(line.find(" [ERROR] [Cmc] : class type (Strange) NOT FOUND"), std::string::npos) << line;
	EXPECT_EQ(root._mcGetChildCount(), 1);
	EXPECT_TRUE(root._mcFind("a"));
}

TEST_F(ManagedXml, WhatIsNotWellFormedMakesNoObjects) {
	const auto good = "<Cmc _mcName=\"a\" ><Cmc/></Cmc>"s;
	for (std::size_t length = 1; length < good.size(); ++length)
		EXPECT_EQ(load(good.substr(0, length)), kQorFailure) << length;
	for (const auto& text : {good + '\0' + good, good + "</Cmc>" + good, "<Cmc>"s + good, "<Cmc a=1/>"s})
		EXPECT_EQ(load(text), kQorFailure) << text;
	EXPECT_EQ(root._mcGetChildCount(), 0);
	EXPECT_EQ(load(good + '\0') + load(" "), 0);
	EXPECT_EQ(root._mcGetChildCount(), 1);
}

TEST_F(ManagedXml, TheDeepestTreeThatIsWrittenIsRead) {
	Cmc* last = &root;
	for (int i = 0; i < 96; ++i) last = Cmc::_mcCreate(last, "level");
	ASSERT_EQ(save(), 0);
	EXPECT_EQ(copy._mcLoadFromXMLFile(path.c_str(), 0), 0);
	int levels = 0;
	for (const Cmc* level = &copy; level->_mcHasChilds(); level = level->_mcGetChild(0)) ++levels;
	EXPECT_EQ(levels, 96);
	Cmc::_mcCreate(last, "too deep");
	EXPECT_EQ(save(), kQorFailure);
	std::string deep;
	for (int i = 0; i < 20000; ++i) deep += "<Cmc>";
	EXPECT_EQ(load(deep), kQorFailure);
}

} // namespace
